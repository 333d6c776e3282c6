// Whether a sound server runs for this user, without connecting to it: its
// address is configured, or its socket is where servers put it.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/backend_registry.h"

namespace nimbara::platform::detail {
namespace {

bool isSocket(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

}  // namespace

bool soundServerRuns() {
  if (const char* server = std::getenv("PULSE_SERVER"); server != nullptr && *server != '\0') {
    return true;
  }
  std::string runtime;
  if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir != nullptr && *dir != '\0') {
    runtime = dir;
  } else {
    runtime = "/run/user/" + std::to_string(getuid());
  }
  return isSocket(runtime + "/pulse/native") || isSocket("/run/pulse/native") ||
         isSocket("/var/run/pulse/native");
}

}  // namespace nimbara::platform::detail
