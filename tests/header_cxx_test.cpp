// An application's view: only the umbrella header, the shared library, and
// the facade driven on the virtual device.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <cstdlib>

int main() {
  nimbara::setLogSink({});
  nimbara::setRunLoopPause([](double) {});
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0.001;
  auto device = std::make_shared<nimbara::platform::VirtualDevice>(options);
  nimbara::platform::setBackend(device);

  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();
  std::shared_ptr<nimbara::Error> error;
  const bool played = nimbara::NimbaraSDK::catchException(
      [&] { sdk.puffAndFlashLedWithRed(255, 0, 0, 0, 300); }, &error);
  nimbara::platform::waitUntilIdle();
  device->setRoute("Speaker");
  const bool refused =
      !nimbara::NimbaraSDK::catchException([&] { sdk.flashLedWithRed(0, 0, 255, 0, 300); }, &error);
  const bool ok = played && refused && error && error->domain == "NimbaraException" &&
                  device->enqueuedSamples().size() == 17640u * 2;
  std::printf("%s\n", ok ? "ok" : "unexpected");
  return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
