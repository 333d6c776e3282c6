#include <nimbara/signal/signal_units.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "common/log.h"
#include "signal/fixed_units.h"

namespace nimbara::detail {

std::atomic<WaveTable*> waveNum01{nullptr};
std::atomic<WaveTable*> waveNum00{nullptr};
std::atomic<ProtocolUnit*> wakeUp{nullptr};
std::atomic<ProtocolUnit*> noSound{nullptr};
std::atomic<ProtocolUnit*> stopBits{nullptr};
std::atomic<ProtocolUnit*> data0x00{nullptr};
std::atomic<ProtocolUnit*> checkZeroBit{nullptr};
std::atomic<ProtocolUnit*> checkOneBit{nullptr};

namespace {

std::atomic<bool> initFlag{false};
std::shared_mutex unitsMutex;
std::atomic<long> liveFrames{0};

// A cleared set, in the order clearProtocolUnit releases it.
struct FixedSet {
  std::array<WaveTable*, 2> waves;  // waveNum00, waveNum01
  std::array<ProtocolUnit*, 6>
      units;  // stopBits, data0x00, noSound, wakeUp, checkZeroBit, checkOneBit
};
std::vector<FixedSet> retired;  // under unitsMutex

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

void release(const FixedSet& set) {
  for (WaveTable* wave : set.waves) {
    if (wave != nullptr) std::free(wave->samples);
    std::free(wave);
  }
  for (ProtocolUnit* unit : set.units) {
    if (unit != nullptr) std::free(unit->data);
    std::free(unit);
  }
}

void releaseRetired() {
  for (const FixedSet& set : retired) release(set);
  retired.clear();
}

}  // namespace

std::shared_lock<std::shared_mutex> useFixedUnits() {
  return std::shared_lock<std::shared_mutex>(unitsMutex);
}

void frameBuilt() {
  liveFrames.fetch_add(1, std::memory_order_acq_rel);
}

void frameReleased() {
  if (liveFrames.fetch_sub(1, std::memory_order_acq_rel) > 1) return;
  // The last frame is gone: cleared sets can go too, unless someone holds
  // the units right now (they will be released at the next clear).
  std::unique_lock lock(unitsMutex, std::try_to_lock);
  if (lock.owns_lock() && liveFrames.load(std::memory_order_acquire) <= 0) releaseRetired();
}

}  // namespace nimbara::detail

using namespace nimbara::detail;

void initProtocolUnit(void) {
  if (initFlag.load(std::memory_order_acquire)) return;
  std::unique_lock lock(unitsMutex);
  if (initFlag.load(std::memory_order_relaxed)) return;
  // Note the crossed names: waveNum01 is the 0-bit wave, logged as "waveNum0".
  WaveTable* zero = makeWave(20, "V01");
  NIMBARA_LOG("waveNum0");
  WaveTable* one = makeWave(40, "V00");
  NIMBARA_LOG("waveNum1");
  const FixedSet set{
      {one, zero},
      {makeFixedUnit(NIMBARA_SAMPLE_UNIT, 5, 1, "S01"), makeFixedUnit(0, 8, 0, "D00"),
       makeFixedUnit(NIMBARA_SAMPLE_UNIT, 441, 0, "N00"),
       makeFixedUnit(NIMBARA_SAMPLE_UNIT, 220, 1, "WAK"), makeFixedUnit(0, 1, 0, "CP0"),
       makeFixedUnit(0, 1, 1, "CP1")}};
  // Out of memory: nothing is kept and the flag stays clear, so that the next
  // builder tries again instead of linking missing units for ever.
  for (const WaveTable* wave : set.waves) {
    if (wave == nullptr) return release(set);
  }
  for (const ProtocolUnit* unit : set.units) {
    if (unit == nullptr) return release(set);
  }
  waveNum00.store(set.waves[0], std::memory_order_release);
  waveNum01.store(set.waves[1], std::memory_order_release);
  stopBits.store(set.units[0], std::memory_order_release);
  data0x00.store(set.units[1], std::memory_order_release);
  noSound.store(set.units[2], std::memory_order_release);
  wakeUp.store(set.units[3], std::memory_order_release);
  checkZeroBit.store(set.units[4], std::memory_order_release);
  checkOneBit.store(set.units[5], std::memory_order_release);
  initFlag.store(true, std::memory_order_release);
}

void clearProtocolUnit(void) {
  std::unique_lock lock(unitsMutex);
  const FixedSet set{
      {waveNum00.exchange(nullptr), waveNum01.exchange(nullptr)},
      {stopBits.exchange(nullptr), data0x00.exchange(nullptr), noSound.exchange(nullptr),
       wakeUp.exchange(nullptr), checkZeroBit.exchange(nullptr), checkOneBit.exchange(nullptr)}};
  initFlag.store(false, std::memory_order_release);
  if (liveFrames.load(std::memory_order_acquire) <= 0) {
    releaseRetired();
    release(set);
    return;
  }
  try {
    retired.push_back(set);
  } catch (const std::bad_alloc&) {
    // Frames still use the set and there is no room to note it: it stays
    // allocated rather than go while it is read.
  }
}
