#include <nimbara/api/NimbaraSDK.h>
#include <nimbara/signal/signal_format.h>

#include <nimbara/platform/audio_queue.h>

#include <cxxabi.h>
#include <atomic>
#include <chrono>
#include <thread>
#include <typeinfo>

#include "common/log.h"

const unsigned char NimbaraSDKVersionString[46] = "@(#)PROGRAM:NimbaraSDK  PROJECT:NimbaraSDK-1\n";
const double NimbaraSDKVersionNumber = 1.0;

namespace nimbara {
namespace {

constexpr double kPauseSeconds = 0.05;

std::atomic<NimbaraSDK*> singleton{nullptr};
std::once_flag singletonOnce;

std::mutex pauseMutex;
std::function<void(double)> runLoopPause;

void pause() {
  std::function<void(double)> hook;
  {
    std::lock_guard lock(pauseMutex);
    hook = runLoopPause;
  }
  if (hook) {
    hook(kPauseSeconds);
  } else {
    std::this_thread::sleep_for(std::chrono::duration<double>(kPauseSeconds));
  }
}

// The controller requests go to: the singleton's, whoever receives them.
std::shared_ptr<NimbaraProtocol> controller() {
  NimbaraSDK* sdk = singleton.load(std::memory_order_acquire);
  return sdk != nullptr ? sdk->nimbaraProtocol() : nullptr;
}

void logInput(std::uint8_t red, std::uint8_t green, std::uint8_t blue, std::uint8_t special,
              std::int16_t time) {
  NIMBARA_LOG("#input RGB=(%d, %d, %d), special=%d, time=%d", red, green, blue, special, time);
}

std::string demangled(const std::type_info& type) {
  int status = 0;
  char* name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string result = status == 0 && name != nullptr ? name : type.name();
  std::free(name);
  return result;
}

}  // namespace

void setRunLoopPause(std::function<void(double)> hook) {
  std::lock_guard lock(pauseMutex);
  runLoopPause = std::move(hook);
}

NimbaraSDK& NimbaraSDK::nimbara() {
  std::call_once(singletonOnce, [] {
    auto* sdk = new NimbaraSDK;  // lives as long as the process
    sdk->setNimbaraProtocol(NimbaraProtocol::create());
    singleton.store(sdk, std::memory_order_release);
    sdk->nimbaraProtocol()->initialize(nullptr);
  });
  nimbaraAudioSessionSetPreferredSampleRate(NIMBARA_SAMPLE_RATE);
  return *singleton.load(std::memory_order_acquire);
}

void NimbaraSDK::initialize() {
  nimbara();
}

bool NimbaraSDK::checkDeviceState() {
  auto protocol = controller();
  return protocol && protocol->checkDeviceState();
}

std::uint32_t NimbaraSDK::checkDetailedDeviceState() {
  pause();
  auto protocol = controller();
  const std::uint32_t status = protocol ? protocol->checkDetailedDeviceState() : 0;
  pause();
  return status;
}

void NimbaraSDK::puffAndFlashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                                        std::uint8_t special, std::int16_t time) {
  puffAndFlashLedWithRed(red, green, blue, special, time,
                         std::any(std::string("Deprecated Method")));
}

void NimbaraSDK::puffAndFlashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                                        std::uint8_t special, std::int16_t time, std::any misc) {
  const std::any keep = std::move(misc);  // accepted, never read
  pause();
  logInput(red, green, blue, special, time);
  if (auto protocol = controller()) {
    // The cartridge is always asked for, and its answer dropped.
    const auto tankId =
        protocol->puffAndFlashLedWithRedAndGetTankId(red, green, blue, special, time);
    const std::string text = tankId->encodeBase64();
  }
  pause();
}

void NimbaraSDK::flashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                                 std::uint8_t special, std::int16_t time) {
  pause();
  logInput(red, green, blue, special, time);
  if (auto protocol = controller()) protocol->flashLedWithRed(red, green, blue, special, time);
  pause();
}

std::shared_ptr<TankId> NimbaraSDK::getTankId() {
  auto protocol = controller();
  return protocol ? protocol->getTankId() : nullptr;
}

std::uint32_t NimbaraSDK::echo(std::uint32_t value) {
  auto protocol = controller();
  return protocol ? protocol->echo(value) : 0;
}

bool NimbaraSDK::catchException(const std::function<void()>& block, std::shared_ptr<Error>* error) {
  const std::function<void()> keep = block;
  try {
    if (keep) keep();
    return true;
  } catch (const Exception& e) {
    if (error != nullptr) *error = std::make_shared<Error>(Error{e.name(), 0, e.userInfo()});
  } catch (const std::exception& e) {
    if (error != nullptr) *error = std::make_shared<Error>(Error{demangled(typeid(e)), 0, {}});
  }
  return false;
}

std::shared_ptr<NimbaraProtocol> NimbaraSDK::nimbaraProtocol() const {
  std::lock_guard lock(mutex_);
  return nimbaraProtocol_;
}

void NimbaraSDK::setNimbaraProtocol(std::shared_ptr<NimbaraProtocol> protocol) {
  std::lock_guard lock(mutex_);
  nimbaraProtocol_ = std::move(protocol);
}

}  // namespace nimbara
