// Whether a sound server runs for this user: a PulseAudio server's address
// is configured or its socket is where servers put it; a PipeWire daemon
// accepts a connection on its socket (a stale one left by a daemon that died
// does not count: PulseAudio clients would then find no server either).
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <cstdlib>
#include <string>

#include "platform/backend_registry.h"

namespace nimbara::platform::detail {
namespace {

bool isSocket(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

bool accepts(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool connected =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

std::string envOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

std::string userRuntimeDir() {
  return envOr("XDG_RUNTIME_DIR", "/run/user/" + std::to_string(getuid()));
}

}  // namespace

bool pipeWireRuns() {
  // Where libpipewire looks: PIPEWIRE_REMOTE names the socket, absolute or in
  // the first runtime folder the environment names.
  const std::string remote = envOr("PIPEWIRE_REMOTE", "pipewire-0");
  if (remote.front() == '/') return accepts(remote);
  std::string runtime;
  for (const char* name : {"PIPEWIRE_RUNTIME_DIR", "XDG_RUNTIME_DIR", "USERPROFILE"}) {
    runtime = envOr(name, "");
    if (!runtime.empty()) break;
  }
  return !runtime.empty() && accepts(runtime + "/" + remote);
}

bool soundServerRuns() {
  if (const char* server = std::getenv("PULSE_SERVER"); server != nullptr && *server != '\0') {
    return true;
  }
  const std::string runtime = userRuntimeDir();
  return isSocket(runtime + "/pulse/native") || isSocket("/run/pulse/native") ||
         isSocket("/var/run/pulse/native");
}

}  // namespace nimbara::platform::detail
