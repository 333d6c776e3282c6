// The backends by scheme, and the backend new queues and session calls use.
// Adding a backend is one file with its factory and one line of the table.
#include <nimbara/platform/backend.h>

#include <array>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/backend_registry.h"

namespace nimbara::platform {
namespace {

using detail::BackendEntry;

constexpr std::array kBackends = {
#ifdef NIMBARA_HAVE_PIPEWIRE
    // Natively where PipeWire runs: its PulseAudio interface would answer too.
    BackendEntry{"pipewire", &detail::makePipeWireBackend, "pipewire, pipewire:NODE", true,
                 &detail::pipeWireRuns},
#endif
#ifdef NIMBARA_HAVE_PULSE
    BackendEntry{"pulse", &detail::makePulseBackend, "pulse, pulse:SINK", true,
                 &detail::soundServerRuns},
#endif
#ifdef NIMBARA_HAVE_ALSA
    BackendEntry{"alsa", &detail::makeAlsaBackend, "alsa, alsa:PCM", true},
#endif
    BackendEntry{"virtual", &detail::makeVirtualBackend, "virtual", true, nullptr, true},
    BackendEntry{"wav", &detail::makeWavBackend, "wav:PATH", false},
};

std::mutex backendMutex;
std::shared_ptr<Backend> selected;
// A thread's own backend, held by the innermost ThreadBackendScope; only that
// thread reads it. A plain pointer: a thread-local with a destructor would
// have glibc register one on first use, and abort when that allocation fails.
thread_local const std::shared_ptr<Backend>* threadBackend = nullptr;

// The first backend that can play here; the virtual device only where the
// library has no real output, so that a machine without sound is told so
// rather than played to in memory.
const BackendEntry& defaultEntry() {
  const BackendEntry* absent = nullptr;  // a real output that does not run here
  for (const BackendEntry& entry : kBackends) {
    if (!entry.canBeDefault) continue;
    if (entry.simulated && absent != nullptr) return *absent;
    if (entry.runsHere == nullptr || entry.runsHere()) return entry;
    if (absent == nullptr) absent = &entry;
  }
  return absent != nullptr ? *absent : kBackends.front();
}

}  // namespace

std::string defaultBackendName() {
  return defaultEntry().scheme;
}

std::string backendNames() {
  std::string names;
  for (std::size_t i = 0; i < kBackends.size(); ++i) {
    if (i > 0) names += i + 1 == kBackends.size() ? " or " : ", ";
    names += kBackends[i].usage;
  }
  return names;
}

std::shared_ptr<Backend> makeBackend(const std::string& name, const std::string& route) {
  const std::size_t colon = name.find(':');
  const std::string scheme = name.substr(0, colon);
  for (const BackendEntry& entry : kBackends) {
    if (scheme != entry.scheme) continue;
    detail::BackendArgs args{colon == std::string::npos ? "" : name.substr(colon + 1), route};
    // "scheme:" names nothing.
    if (colon != std::string::npos && args.argument.empty()) break;
    return entry.make(args);
  }
  throw std::invalid_argument("unknown audio output \"" + name + "\" (use " + backendNames() + ")");
}

void setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard lock(backendMutex);
  selected = std::move(backend);
}

ThreadBackendScope::ThreadBackendScope(std::shared_ptr<Backend> backend)
    : backend_(std::move(backend)), previous_(std::exchange(threadBackend, &backend_)) {}

ThreadBackendScope::~ThreadBackendScope() {
  threadBackend = previous_;
}

std::shared_ptr<Backend> currentBackend() {
  if (threadBackend != nullptr && *threadBackend) return *threadBackend;
  std::lock_guard lock(backendMutex);
  if (!selected) selected = defaultEntry().make({});
  return selected;
}

std::shared_ptr<Backend> currentBackendOrNull() noexcept {
  try {
    return currentBackend();
  } catch (...) {
    return nullptr;
  }
}

}  // namespace nimbara::platform
