// The current backend, the session calls and the thread pause.
#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/platform/wav_device.h>
#ifdef NIMBARA_HAVE_PULSE
#include <nimbara/platform/pulse_device.h>
#endif

#include <chrono>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace nimbara::platform {
namespace {

std::mutex backendMutex;
std::shared_ptr<Backend> selected;

std::shared_ptr<Backend> makeDefaultBackend() {
#ifdef NIMBARA_HAVE_PULSE
  return std::make_shared<PulseDevice>();
#else
  return std::make_shared<VirtualDevice>();
#endif
}

}  // namespace

std::int32_t OutputStream::prepareBuffer(std::uint32_t) {
  return NIMBARA_AUDIO_OK;
}
std::int32_t OutputStream::enqueued(const std::int16_t*, std::size_t) {
  return NIMBARA_AUDIO_OK;
}
std::int32_t OutputStream::start() {
  return NIMBARA_AUDIO_OK;
}
std::int32_t OutputStream::close() {
  return NIMBARA_AUDIO_OK;
}

std::int32_t Backend::initializeSession() {
  return NIMBARA_AUDIO_OK;
}
std::int32_t Backend::setCategoryPlayback() {
  return NIMBARA_AUDIO_OK;
}
std::int32_t Backend::setActive(bool) {
  return NIMBARA_AUDIO_OK;
}
std::int32_t Backend::setPreferredSampleRate(double) {
  return NIMBARA_AUDIO_OK;
}
void Backend::sleep(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}
bool Backend::returnsBuffersAfterDispose() const {
  return true;
}

void setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard lock(backendMutex);
  selected = std::move(backend);
}

std::shared_ptr<Backend> currentBackend() {
  std::lock_guard lock(backendMutex);
  if (!selected) selected = makeDefaultBackend();
  return selected;
}

std::shared_ptr<Backend> currentBackendOrNull() noexcept {
  try {
    return currentBackend();
  } catch (...) {
    return nullptr;
  }
}

std::shared_ptr<Backend> makeBackend(const std::string& name, const std::string& route) {
  if (name == "virtual") {
    VirtualDevice::Options options;
    if (!route.empty()) options.route = route;
    return std::make_shared<VirtualDevice>(options);
  }
  if (name.starts_with("wav:") && name.size() > 4) {
    return route.empty() ? std::make_shared<WavDevice>(name.substr(4))
                         : std::make_shared<WavDevice>(name.substr(4), route);
  }
#ifdef NIMBARA_HAVE_PULSE
  if (name == "pulse") return std::make_shared<PulseDevice>();
  if (name.starts_with("pulse:") && name.size() > 6) {
    return std::make_shared<PulseDevice>(std::string(), name.substr(6));
  }
#endif
  throw std::invalid_argument("unknown audio output \"" + name +
                              "\" (use pulse, pulse:SINK, virtual or wav:PATH)");
}

}  // namespace nimbara::platform

namespace {

// A session call on the current backend; no exception leaves a C function.
template <typename Call>
std::int32_t onBackend(Call call) {
  try {
    auto backend = nimbara::platform::currentBackend();
    return call(*backend);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  } catch (...) {
    return NIMBARA_AUDIO_ERR_IO;
  }
}

}  // namespace

int32_t nimbaraAudioSessionInitialize(void) {
  return onBackend([](auto& b) { return b.initializeSession(); });
}
int32_t nimbaraAudioSessionSetCategoryPlayback(void) {
  return onBackend([](auto& b) { return b.setCategoryPlayback(); });
}
int32_t nimbaraAudioSessionSetActive(bool active) {
  return onBackend([&](auto& b) { return b.setActive(active); });
}
int32_t nimbaraAudioSessionSetPreferredSampleRate(double rate) {
  return onBackend([&](auto& b) { return b.setPreferredSampleRate(rate); });
}

int32_t nimbaraAudioSessionCopyRouteName(char* name, size_t capacity) {
  if (name == nullptr || capacity == 0) return NIMBARA_AUDIO_ERR_INVALID;
  name[0] = '\0';
  return onBackend([&](auto& backend) {
    std::string route;
    if (const std::int32_t status = backend.routeName(&route)) return status;
    const std::size_t n = std::min(route.size(), capacity - 1);
    std::memcpy(name, route.data(), n);
    name[n] = '\0';
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

void nimbaraThreadSleep(double seconds) {
  // Without a backend to ask, the pause is real time.
  if (auto backend = nimbara::platform::currentBackendOrNull()) {
    backend->sleep(seconds);
  } else {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
}

int32_t nimbaraAudioUseBackend(const char* name) {
  if (name == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  try {
    nimbara::platform::setBackend(nimbara::platform::makeBackend(name));
  } catch (const std::invalid_argument&) {
    return NIMBARA_AUDIO_ERR_INVALID;
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

void nimbaraAudioWaitUntilIdle(void) {
  nimbara::platform::waitUntilIdle();
}
