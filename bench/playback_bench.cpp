// One transmission end to end: the time from executeFunction's call to the
// first sample handed to the output, and the call's duration against the
// sound's, on the virtual device in real time and on the PulseAudio server.
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/signal/playback.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;
using nimbara::platform::Backend;
using nimbara::platform::OutputStream;

// Wraps a backend and notes when its first stream is first handed a buffer.
class TimingBackend : public Backend {
 public:
  explicit TimingBackend(std::shared_ptr<Backend> inner) : inner_(std::move(inner)) {}
  const char* name() const override { return inner_->name(); }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override {
    std::unique_ptr<OutputStream> innerStream;
    const std::int32_t status = inner_->openStream(format, &innerStream);
    if (status == 0) *stream = std::make_unique<Stream>(std::move(innerStream), firstSample_);
    return status;
  }
  std::int32_t routeName(std::string* name) override { return inner_->routeName(name); }
  void sleep(double seconds) override { inner_->sleep(seconds); }

  void reset() { firstSample_.store(Clock::time_point{}); }
  Clock::time_point firstSample() const { return firstSample_.load(); }

 private:
  class Stream : public OutputStream {
   public:
    Stream(std::unique_ptr<OutputStream> inner, std::atomic<Clock::time_point>& first)
        : inner_(std::move(inner)), first_(first) {}
    std::int32_t play(const std::int16_t* samples, std::size_t frames,
                      const std::atomic<bool>& stop) override {
      if (first_.load() == Clock::time_point{}) first_.store(Clock::now());
      return inner_->play(samples, frames, stop);
    }
    std::int32_t close() override { return inner_->close(); }

   private:
    std::unique_ptr<OutputStream> inner_;
    std::atomic<Clock::time_point>& first_;
  };

  std::shared_ptr<Backend> inner_;
  std::atomic<Clock::time_point> firstSample_{};
};

void transmit(benchmark::State& state, std::shared_ptr<Backend> device) {
  nimbara::setLogSink({});
  auto timing = std::make_shared<TimingBackend>(std::move(device));
  nimbara::platform::setBackend(timing);
  constexpr unsigned long kSampleLen = 35280;  // 400 ms of sound
  double firstSampleMs = 0, callMs = 0;
  for (auto _ : state) {
    timing->reset();
    FrameNode* frame = createSprayWithLightLedProtocol(255, 128, 0, 1, 500);
    const auto start = Clock::now();
    if (executeFunction(frame, 1, kSampleLen, nullptr) != 0) {
      state.SkipWithError("playback failed: is a sound server running?");
      break;
    }
    const auto end = Clock::now();
    nimbara::platform::waitUntilIdle();
    firstSampleMs +=
        std::chrono::duration<double, std::milli>(timing->firstSample() - start).count();
    callMs += std::chrono::duration<double, std::milli>(end - start).count();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["first_sample_ms"] = firstSampleMs / n;
  state.counters["call_ms"] = callMs / n;
  state.counters["sound_ms"] = 400;
  state.counters["call_per_sound"] = callMs / n / 400;
  nimbara::platform::setBackend(nullptr);
}

void BM_TransmitVirtualRealTime(benchmark::State& state) {
  transmit(state, std::make_shared<nimbara::platform::VirtualDevice>());
}

void BM_TransmitPulse(benchmark::State& state) {
  std::shared_ptr<Backend> pulse;
  try {
    pulse = nimbara::platform::makeBackend("pulse");
  } catch (const std::invalid_argument&) {
    state.SkipWithError("built without the sound server's backend");
    return;
  }
  transmit(state, pulse);
}

BENCHMARK(BM_TransmitVirtualRealTime)
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TransmitPulse)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace
