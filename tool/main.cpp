// nimbara: builds a command's frame, plays it on the virtual device and
// prints the frame's shape and what the device was handed.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

void printShape(FrameNode* frame) {
  std::printf("frame:");
  for (FrameNode* node = frame; node != nullptr; node = node->next) {
    std::printf(" %.3s(%d)", node->protocol->name, node->protocol->length);
  }
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const bool verbose = argc > 1 && std::string(argv[1]) == "--verbose";
  if (!verbose) nimbara::setLogSink({});
  auto device = std::make_shared<nimbara::platform::VirtualDevice>();
  nimbara::platform::setBackend(device);

  FrameNode* frame = createSprayWithLightLedGetTankIdProtocol(255, 64, 0, 0, 500);
  printShape(frame);
  const int status = executeFunction(frame, 2, 35280, nullptr);
  nimbara::platform::waitUntilIdle();
  nimbara::flushLog();
  const auto handed = device->enqueuedSamples();
  const auto played = device->playedSamples();
  std::printf("status: %d (%s)\n", status, nimbaraAudioStatusText(status));
  std::printf("handed to the output: %zu frames, played: %zu frames\n", handed.size() / 2,
              played.size() / 2);
  return status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
