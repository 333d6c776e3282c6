#include <nimbara/api/NimbaraProtocol.h>

#include <nimbara/device/operations.h>
#include <nimbara/device/route.h>
#include <nimbara/platform/audio_queue.h>
#include <nimbara/signal/signal_units.h>

#include <cstring>

namespace nimbara {
namespace {

constexpr const char* kNoDeviceReason = "No device.";
constexpr const char* kSkipOption = "SKIP_PRECHECK";

// The identity every cartridge query answers with in this version.
std::shared_ptr<TankId> fixedTankId(std::shared_ptr<TankId> tankId) {
  tankId->setYear(13);
  tankId->setMonth(11);
  tankId->setDay(15);
  tankId->setScentId(0);
  tankId->setSerialId(0);
  tankId->setReserve1(0);
  tankId->setReserve2(0);
  return tankId;
}

}  // namespace

bool boolValue(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && std::strchr(" \t\n\r\v\f", text[i]) != nullptr) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  return i < text.size() && std::strchr("YyTt123456789", text[i]) != nullptr && text[i] != '\0';
}

std::shared_ptr<NimbaraProtocol> NimbaraProtocol::create() {
  return std::make_shared<NimbaraProtocol>();
}

NimbaraProtocol::~NimbaraProtocol() {
  cleanUp();
}

NimbaraException NimbaraProtocol::createNimbaraException(int code,
                                                         const std::string& reason) const {
  return NimbaraException(code, reason);
}

void NimbaraProtocol::preCheckDevice() {
  if (preCheck()) return;
  if (checkDeviceForInternal()) return;
  throw createNimbaraException(NimbaraException::kNoDevice, kNoDeviceReason);
}

void NimbaraProtocol::preCheckDeviceByMicWave() {
  if (preCheck()) return;
  if (checkDeviceByMicWaveForInternal()) return;
  throw createNimbaraException(NimbaraException::kNoDevice, kNoDeviceReason);
}

void NimbaraProtocol::initialize(const Options* options) {
  // Session statuses are ignored: set-up goes on whatever the platform says.
  nimbaraAudioSessionInitialize();
  nimbaraAudioSessionSetCategoryPlayback();
  nimbaraAudioSessionSetActive(true);
  if (options == nullptr) return;
  if (auto it = options->find(kSkipOption); it != options->end()) {
    setPreCheck(boolValue(it->second));
  }
}

void NimbaraProtocol::cleanUp() {
  clearProtocolUnit();
}

bool NimbaraProtocol::checkDeviceState() {
  return checkDetailedDeviceState() == 0;
}

std::uint32_t NimbaraProtocol::checkDetailedDeviceState() {
  try {
    preCheckDevice();
    return 0;
  } catch (const NimbaraException&) {
    return 1;
  }
}

void NimbaraProtocol::puffAndFlashLedWithRed(std::uint8_t red, std::uint8_t green,
                                             std::uint8_t blue, std::uint8_t special,
                                             std::int16_t time) {
  preCheckDevice();
  doSprayWithLightLed(red, green, blue, special, time);
}

std::shared_ptr<TankId> NimbaraProtocol::puffAndFlashLedWithRedAndGetTankId(std::uint8_t red,
                                                                            std::uint8_t green,
                                                                            std::uint8_t blue,
                                                                            std::uint8_t special,
                                                                            std::int16_t time) {
  preCheckDevice();
  auto tankId = std::make_shared<TankId>();
  std::shared_ptr<TankId> filled = tankId;
  doSprayWithLightLedGetTankId(red, green, blue, special, time, filled);
  // Whatever the device delivered, this version answers with the fixed identity.
  return fixedTankId(filled ? filled : tankId);
}

void NimbaraProtocol::flashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                                      std::uint8_t special, std::int16_t time) {
  preCheckDevice();
  doLightLed(red, green, blue, special, time);
}

std::shared_ptr<TankId> NimbaraProtocol::getTankId() {
  preCheckDevice();
  return fixedTankId(std::make_shared<TankId>());
}

std::uint32_t NimbaraProtocol::echo(std::uint32_t) {
  preCheckDevice();
  return 0;
}

}  // namespace nimbara
