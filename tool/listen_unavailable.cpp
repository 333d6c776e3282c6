// listen needs a sound server; this build has none.
#include <stdexcept>

#include "commands.h"

namespace tool {

int runListen(const Globals&, const ListenRequest&) {
  throw std::runtime_error("listen needs the PulseAudio backend, which this build lacks");
}

}  // namespace tool
