// The umbrella header compiles as C++ and the shared library links.
#include <nimbara/nimbara.h>

#include <cstdlib>

int main() {
  nimbara::setLogSink({});
  FrameNode* frame = createAcquireProtocol();
  int nodes = 0;
  for (FrameNode* node = frame; node != nullptr; node = node->next) ++nodes;
  freeProtocolFrame(frame);
  return nodes == 11 ? EXIT_SUCCESS : EXIT_FAILURE;
}
