// The plain C functions of the audio session, the route and the backend's
// choice, on the current backend.
#include <nimbara/platform/audio_queue.h>
#include <nimbara/platform/backend.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

// A call on the current backend; no exception leaves a C function.
template <typename Call>
std::int32_t onBackend(Call call) {
  try {
    auto backend = nimbara::platform::currentBackend();
    if (!backend) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    return call(*backend);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  } catch (...) {
    return NIMBARA_AUDIO_ERR_IO;
  }
}

}  // namespace

// Nothing to set up on any output this library plays on: no session to
// open, no category to choose, nothing to activate.
int32_t nimbaraAudioSessionInitialize(void) {
  return NIMBARA_AUDIO_OK;
}
int32_t nimbaraAudioSessionSetCategoryPlayback(void) {
  return NIMBARA_AUDIO_OK;
}
int32_t nimbaraAudioSessionSetActive(bool) {
  return NIMBARA_AUDIO_OK;
}

int32_t nimbaraAudioSessionSetPreferredSampleRate(double rate) {
  return onBackend([&](auto& b) { return b.setPreferredSampleRate(rate); });
}

int32_t nimbaraAudioSessionSetAllowResampling(bool allow) {
  return onBackend([&](auto& b) { return b.setAllowResampling(allow); });
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
