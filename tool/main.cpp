// nimbara: puffs through the facade on the virtual device and tells what the
// device was handed. (The full tool, with its subcommands, comes later.)
#include <nimbara/nimbara.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

int main(int argc, char** argv) {
  const bool verbose = argc > 1 && std::string(argv[1]) == "--verbose";
  if (!verbose) nimbara::setLogSink({});
  auto device = std::make_shared<nimbara::platform::VirtualDevice>();
  nimbara::platform::setBackend(device);

  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();
  std::shared_ptr<nimbara::Error> error;
  const bool ok = nimbara::NimbaraSDK::catchException(
      [&] { sdk.puffAndFlashLedWithRed(255, 64, 0, 0, 500); }, &error);
  nimbara::platform::waitUntilIdle();
  nimbara::flushLog();
  if (!ok) {
    std::fprintf(stderr, "nimbara: %s\n", error ? error->domain.c_str() : "failed");
    return EXIT_FAILURE;
  }
  std::printf("route: %s\n", "Virtual Headphones");
  std::printf("puff: RGB=(255, 64, 0), special=0, time=500 ms\n");
  std::printf("handed to the output: %zu frames, heard: %zu frames\n",
              device->enqueuedSamples().size() / 2, device->playedSamples().size() / 2);
  std::printf("tank: %s\n", sdk.getTankId()->description().c_str());
  return EXIT_SUCCESS;
}
