#include <nimbara/frame/commands.h>

#include <cstdint>
#include <cstdlib>

#include <nimbara/signal/signal_units.h>

#include "common/log.h"
#include "signal/fixed_units.h"

namespace {

enum Opcode : std::uint8_t {
  kAcquire = 1,
  kSprayWithLed = 2,
  kGetTankId = 3,
  kLightLed = 4,
  kSprayWithLedGetTankId = 5,
  kEcho = 255,
};

void releaseUnit(ProtocolUnit* unit) {
  if (unit == nullptr || (unit->isStatic & 1u) != 0) return;
  std::free(unit->data);
  std::free(unit);
}

// The command unit is made before the parameter unit; makeParameter returns a
// fresh unit or a fixed one.
template <typename MakeParameter>
FrameNode* buildCommand(std::uint8_t opcode, MakeParameter makeParameter) {
  initProtocolUnit();
  // The fixed units stay put while the frame takes them; should another
  // thread have cleared them meanwhile, they are made again first.
  auto fixedUnits = nimbara::detail::useFixedUnits();
  while (nimbara::detail::wakeUp.load(std::memory_order_acquire) == nullptr) {
    fixedUnits.unlock();
    initProtocolUnit();
    fixedUnits.lock();
  }
  ProtocolUnit* command = create8bitProtocolUnit(opcode);
  ProtocolUnit* parameter = makeParameter();
  FrameNode* frame = nullptr;
  if (command != nullptr && parameter != nullptr) frame = buildProtocol(command, parameter);
  if (frame == nullptr) {
    releaseUnit(command);
    releaseUnit(parameter);
  }
  return frame;
}

FrameNode* buildLedCommand(std::uint8_t opcode, std::uint8_t red, std::uint8_t green,
                           std::uint8_t blue, std::uint8_t special, std::int16_t time) {
  return buildCommand(
      opcode, [&] { return createLightLedParamProtocolUnit(red, green, blue, special, time); });
}

ProtocolUnit* zeroParameter() {
  return nimbara::detail::data0x00;
}

}  // namespace

FrameNode* createAcquireProtocol(void) {
  NIMBARA_LOG("createAcquireProtocol");
  return buildCommand(kAcquire, zeroParameter);
}

FrameNode* createGetTankIdProtocol(void) {
  NIMBARA_LOG("createGetTankIdProtocol");
  return buildCommand(kGetTankId, zeroParameter);
}

FrameNode* createLightLedProtocol(uint8_t red, uint8_t green, uint8_t blue, uint8_t special,
                                  int16_t time) {
  NIMBARA_LOG("createLightLedProtocol");
  return buildLedCommand(kLightLed, red, green, blue, special, time);
}

FrameNode* createSprayWithLightLedProtocol(uint8_t red, uint8_t green, uint8_t blue,
                                           uint8_t special, int16_t time) {
  NIMBARA_LOG("createSprayWithLightLedProtocol");
  return buildLedCommand(kSprayWithLed, red, green, blue, special, time);
}

FrameNode* createSprayWithLightLedGetTankIdProtocol(uint8_t red, uint8_t green, uint8_t blue,
                                                    uint8_t special, int16_t time) {
  NIMBARA_LOG("createSprayWithLightLedGetTankIdProtocol");
  return buildLedCommand(kSprayWithLedGetTankId, red, green, blue, special, time);
}

FrameNode* createSprayProtocol(int16_t time) {
  NIMBARA_LOG("createSprayProtocol time[ms]=%d", time);
  return buildCommand(kSprayWithLed, [time] { return create16bitProtocolUnit(time); });
}

FrameNode* createEchoProtocol(uint32_t number) {
  NIMBARA_LOG("createEchoProtocol");
  return buildCommand(kEcho, [number] { return create32bitProtocolUnit(number); });
}
