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
#include <string>
#include <string_view>
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

void OutputStream::enqueued(const std::int16_t*, std::size_t) {}
void OutputStream::close() {}

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
std::int32_t Backend::injectedFault(Call, unsigned) {
  return NIMBARA_AUDIO_OK;
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

}  // namespace nimbara::platform

using nimbara::platform::currentBackend;

int32_t nimbaraAudioSessionInitialize(void) {
  return currentBackend()->initializeSession();
}
int32_t nimbaraAudioSessionSetCategoryPlayback(void) {
  return currentBackend()->setCategoryPlayback();
}
int32_t nimbaraAudioSessionSetActive(bool active) {
  return currentBackend()->setActive(active);
}
int32_t nimbaraAudioSessionSetPreferredSampleRate(double rate) {
  return currentBackend()->setPreferredSampleRate(rate);
}

int32_t nimbaraAudioSessionCopyRouteName(char* name, size_t capacity) {
  if (name == nullptr || capacity == 0) return NIMBARA_AUDIO_ERR_INVALID;
  name[0] = '\0';
  auto backend = currentBackend();
  if (const std::int32_t fault = backend->injectedFault(nimbara::platform::Call::RouteQuery, 1)) {
    return fault;
  }
  std::string route;
  if (const std::int32_t status = backend->routeName(&route)) return status;
  const std::size_t n = std::min(route.size(), capacity - 1);
  std::memcpy(name, route.data(), n);
  name[n] = '\0';
  return NIMBARA_AUDIO_OK;
}

void nimbaraThreadSleep(double seconds) {
  currentBackend()->sleep(seconds);
}

int32_t nimbaraAudioUseBackend(const char* name) {
  using namespace nimbara::platform;
  if (name == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  const std::string_view choice(name);
  if (choice == "virtual") {
    setBackend(std::make_shared<VirtualDevice>());
  } else if (choice.rfind("wav:", 0) == 0 && choice.size() > 4) {
    setBackend(std::make_shared<WavDevice>(std::string(choice.substr(4))));
#ifdef NIMBARA_HAVE_PULSE
  } else if (choice == "pulse") {
    setBackend(std::make_shared<PulseDevice>());
#endif
  } else {
    return NIMBARA_AUDIO_ERR_INVALID;
  }
  return NIMBARA_AUDIO_OK;
}

void nimbaraAudioWaitUntilIdle(void) {
  nimbara::platform::waitUntilIdle();
}
