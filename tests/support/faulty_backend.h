// A test-side backend that wraps a real one and fails chosen platform calls:
// how the engine reacts to every failing call, without fault hooks in the
// library's own backends.
#pragma once

#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>

#include <array>
#include <atomic>
#include <memory>

namespace nimbara::test {

// What can fail. Occurrences count from 1 per queue (per backend for the
// stream's opening and the route query).
enum class Call { NewOutput, AllocateBuffer, Start, Enqueue, Play, Close, RouteQuery, Count };

class FaultyBackend : public platform::Backend {
 public:
  explicit FaultyBackend(std::shared_ptr<platform::Backend> inner) : inner_(std::move(inner)) {}

  // Fails the occurrence-th call of that kind (every one for 0) with status;
  // status 0 clears it.
  void failCall(Call call, std::int32_t status, unsigned occurrence = 1) {
    Fault& fault = faults_[static_cast<std::size_t>(call)];
    fault.occurrence.store(occurrence);
    fault.status.store(status);
  }

  std::int32_t fault(Call call, unsigned occurrence) const {
    const Fault& f = faults_[static_cast<std::size_t>(call)];
    const std::int32_t status = f.status.load();
    const unsigned which = f.occurrence.load();
    return status != 0 && (which == 0 || which == occurrence) ? status : 0;
  }

  const char* name() const override { return inner_->name(); }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<platform::OutputStream>* stream) override {
    if (const std::int32_t status = fault(Call::NewOutput, ++opened_)) return status;
    std::unique_ptr<platform::OutputStream> inner;
    if (const std::int32_t status = inner_->openStream(format, &inner)) return status;
    *stream = std::make_unique<Stream>(*this, std::move(inner));
    return 0;
  }
  std::int32_t routeName(std::string* name) override {
    if (const std::int32_t status = fault(Call::RouteQuery, ++routeQueries_)) return status;
    return inner_->routeName(name);
  }
  std::int32_t setPreferredSampleRate(double rate) override {
    return inner_->setPreferredSampleRate(rate);
  }
  void sleep(double seconds) override { inner_->sleep(seconds); }
  bool returnsBuffersAfterDispose() const override { return inner_->returnsBuffersAfterDispose(); }

 private:
  struct Fault {
    std::atomic<std::int32_t> status{0};
    std::atomic<unsigned> occurrence{0};
  };

  class Stream : public platform::OutputStream {
   public:
    Stream(FaultyBackend& backend, std::unique_ptr<platform::OutputStream> inner)
        : backend_(backend), inner_(std::move(inner)) {}
    std::int32_t prepareBuffer(std::uint32_t byteSize) override {
      if (const std::int32_t s = backend_.fault(Call::AllocateBuffer, ++allocations_)) return s;
      return inner_->prepareBuffer(byteSize);
    }
    std::int32_t enqueued(const std::int16_t* samples, std::size_t frames) override {
      if (const std::int32_t s = backend_.fault(Call::Enqueue, ++enqueues_)) return s;
      return inner_->enqueued(samples, frames);
    }
    std::int32_t start() override {
      if (const std::int32_t s = backend_.fault(Call::Start, 1)) return s;
      return inner_->start();
    }
    std::int32_t play(const std::int16_t* samples, std::size_t frames,
                      const std::atomic<bool>& stop) override {
      const std::int32_t played = inner_->play(samples, frames, stop);
      if (const std::int32_t s = backend_.fault(Call::Play, ++plays_)) return s;
      return played;
    }
    std::int32_t close() override {
      const std::int32_t closed = inner_->close();
      if (const std::int32_t s = backend_.fault(Call::Close, 1)) return s;
      return closed;
    }

   private:
    FaultyBackend& backend_;
    std::unique_ptr<platform::OutputStream> inner_;
    unsigned allocations_ = 0, enqueues_ = 0, plays_ = 0;
  };

  std::shared_ptr<platform::Backend> inner_;
  std::array<Fault, static_cast<std::size_t>(Call::Count)> faults_;
  std::atomic<unsigned> opened_{0};
  std::atomic<unsigned> routeQueries_{0};
};

// A virtual device behind a FaultyBackend, installed for one test.
class FaultyOutput {
 public:
  explicit FaultyOutput(platform::VirtualDevice::Options options = fastOptions())
      : device_(std::make_shared<platform::VirtualDevice>(std::move(options))),
        faults_(std::make_shared<FaultyBackend>(device_)) {
    platform::setBackend(faults_);
  }
  ~FaultyOutput() {
    platform::waitUntilIdle();
    platform::setBackend(nullptr);
  }
  FaultyOutput(const FaultyOutput&) = delete;
  FaultyOutput& operator=(const FaultyOutput&) = delete;

  static platform::VirtualDevice::Options fastOptions() {
    platform::VirtualDevice::Options options;
    options.timeScale = 0.001;
    return options;
  }

  FaultyBackend& faults() { return *faults_; }
  platform::VirtualDevice* operator->() const { return device_.get(); }

 private:
  std::shared_ptr<platform::VirtualDevice> device_;
  std::shared_ptr<FaultyBackend> faults_;
};

}  // namespace nimbara::test
