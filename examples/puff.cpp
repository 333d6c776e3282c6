// Drives the facade on the virtual device: a puff, then a flash with no
// device on the route, its exception turned into an error.
#include <nimbara/nimbara.h>

#include <cstdio>

int main() {
  nimbara::setLogSink({});
  auto device = std::make_shared<nimbara::platform::VirtualDevice>();
  nimbara::platform::setBackend(device);
  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();

  std::shared_ptr<nimbara::Error> error;
  if (!nimbara::NimbaraSDK::catchException([&] { sdk.puffAndFlashLedWithRed(255, 64, 0, 0, 500); },
                                           &error)) {
    std::printf("puff failed: %s\n", error->domain.c_str());
    return 1;
  }
  nimbara::platform::waitUntilIdle();
  std::printf("puffed: %zu frames handed to the output\n", device->enqueuedSamples().size() / 2);

  device->setRoute("Speaker");
  const bool flashed =
      nimbara::NimbaraSDK::catchException([&] { sdk.flashLedWithRed(0, 0, 255, 0, 300); }, &error);
  std::printf("flash without a device: %s\n", flashed ? "sent" : error->domain.c_str());
  return !flashed && error->domain == "NimbaraException" ? 0 : 1;
}
