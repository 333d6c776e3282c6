// nimbara: drives the scent accessory on the headphone jack from a shell,
// renders and decodes its signal, and plays the accessory itself.
#include "cli.h"

int main(int argc, char** argv) {
  return tool::runTool(argc, argv, true);
}
