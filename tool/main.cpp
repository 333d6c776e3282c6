// nimbara: drives the scent accessory on the headphone jack from a shell,
// renders and decodes its signal, and plays the accessory itself.
#include <csignal>

#include "cli.h"

int main(int argc, char** argv) {
  // Past a file-size limit a write fails and says so, instead of the signal
  // ending the process with a truncated file.
  std::signal(SIGXFSZ, SIG_IGN);
  return tool::runTool(argc, argv, true);
}
