#include <nimbara/signal/signal_units.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/log.h"
#include "signal/fixed_units.h"

namespace nimbara::detail {

WaveTable* waveNum01 = nullptr;
WaveTable* waveNum00 = nullptr;
ProtocolUnit* wakeUp = nullptr;
ProtocolUnit* noSound = nullptr;
ProtocolUnit* stopBits = nullptr;
ProtocolUnit* data0x00 = nullptr;
ProtocolUnit* checkZeroBit = nullptr;
ProtocolUnit* checkOneBit = nullptr;

namespace {

std::atomic<bool> initFlag{false};
std::mutex buildMutex;

void setName(char (&name)[4], const char* letters) {
  std::memcpy(name, letters, 3);
  name[3] = '\0';
}

// Samples below length / 2 at the positive peak, the rest at the negative one.
WaveTable* makeWave(std::uint32_t length, const char* name) {
  auto* wave = static_cast<WaveTable*>(std::calloc(1, sizeof(WaveTable)));
  auto* samples = static_cast<std::int16_t*>(std::calloc(length, sizeof(std::int16_t)));
  if (wave == nullptr || samples == nullptr) {
    std::free(wave);
    std::free(samples);
    return nullptr;
  }
  for (std::uint32_t i = 0; i < length; ++i) samples[i] = i < length / 2 ? 32767 : -32768;
  wave->samples = samples;
  wave->length = length;
  setName(wave->name, name);
  return wave;
}

ProtocolUnit* makeFixedUnit(std::uint32_t kind, std::int32_t length, std::uint8_t fill,
                            const char* name) {
  auto* unit = static_cast<ProtocolUnit*>(std::calloc(1, sizeof(ProtocolUnit)));
  auto* data = static_cast<std::uint8_t*>(std::malloc(static_cast<std::size_t>(length)));
  if (unit == nullptr || data == nullptr) {
    std::free(unit);
    std::free(data);
    return nullptr;
  }
  std::memset(data, fill, static_cast<std::size_t>(length));
  unit->data = data;
  unit->length = length;
  unit->kind = kind;
  unit->isStatic = 1;
  setName(unit->name, name);
  return unit;
}

template <typename Record>
void release(Record*& record) {
  if (record == nullptr) return;
  if constexpr (std::is_same_v<Record, WaveTable>) {
    std::free(record->samples);
  } else {
    std::free(record->data);
  }
  std::free(record);
  record = nullptr;
}

}  // namespace
}  // namespace nimbara::detail

using namespace nimbara::detail;

void initProtocolUnit(void) {
  if (initFlag.load(std::memory_order_acquire)) return;
  std::lock_guard lock(buildMutex);
  if (initFlag.load(std::memory_order_relaxed)) return;
  // Note the crossed names: waveNum01 is the 0-bit wave, logged as "waveNum0".
  waveNum01 = makeWave(20, "V01");
  NIMBARA_LOG("waveNum0");
  waveNum00 = makeWave(40, "V00");
  NIMBARA_LOG("waveNum1");
  wakeUp = makeFixedUnit(NIMBARA_SAMPLE_UNIT, 220, 1, "WAK");
  noSound = makeFixedUnit(NIMBARA_SAMPLE_UNIT, 441, 0, "N00");
  stopBits = makeFixedUnit(NIMBARA_SAMPLE_UNIT, 5, 1, "S01");
  data0x00 = makeFixedUnit(0, 8, 0, "D00");
  checkZeroBit = makeFixedUnit(0, 1, 0, "CP0");
  checkOneBit = makeFixedUnit(0, 1, 1, "CP1");
  initFlag.store(true, std::memory_order_release);
}

void clearProtocolUnit(void) {
  std::lock_guard lock(buildMutex);
  release(waveNum00);
  release(waveNum01);
  release(stopBits);
  release(data0x00);
  release(noSound);
  release(wakeUp);
  release(checkZeroBit);
  release(checkOneBit);
  initFlag.store(false, std::memory_order_release);
}
