// A virtual device installed as the current backend for one test.
#pragma once

#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>

#include <memory>

namespace nimbara::test {

class VirtualOutput {
 public:
  explicit VirtualOutput(platform::VirtualDevice::Options options = fastOptions())
      : device_(std::make_shared<platform::VirtualDevice>(std::move(options))) {
    platform::setBackend(device_);
  }
  ~VirtualOutput() {
    platform::waitUntilIdle();
    platform::setBackend(nullptr);
  }
  VirtualOutput(const VirtualOutput&) = delete;
  VirtualOutput& operator=(const VirtualOutput&) = delete;

  // A clock a thousand times faster than real time.
  static platform::VirtualDevice::Options fastOptions() {
    platform::VirtualDevice::Options options;
    options.timeScale = 0.001;
    return options;
  }

  platform::VirtualDevice& operator*() const { return *device_; }
  platform::VirtualDevice* operator->() const { return device_.get(); }

 private:
  std::shared_ptr<platform::VirtualDevice> device_;
};

}  // namespace nimbara::test
