// outputs needs a sound server; this build has none.
#include <stdexcept>

#include "commands.h"

namespace tool {

int runOutputs(const Globals&) {
  throw std::runtime_error("outputs needs the PulseAudio backend, which this build lacks");
}

}  // namespace tool
