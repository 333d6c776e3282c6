// What callers, the log sink and the scheduler can do must not crash, hang,
// leak, race or corrupt the signal.
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/signal_units.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/expected_signal.h"
#include "support/signals.h"
#include "support/virtual_output.h"

namespace {

using nimbara::test::VirtualOutput;
using Clock = std::chrono::steady_clock;

// One LED command played in real time; the samples the device heard.
std::vector<std::int16_t> playLedInRealTime(VirtualOutput& output) {
  EXPECT_EQ(executeFunction(createLightLedProtocol(9, 8, 7, 6, 5), 1, 35280, nullptr), 0);
  nimbara::platform::waitUntilIdle();
  return output->playedSamples();
}

std::vector<std::int16_t> heardLed() {
  auto all = nimbara::test::ledCommandSignal(4, 9, 8, 7, 6, 5, 17640);
  all.resize(all.size() - 2 * 735 * 2);  // the last two buffers are never heard
  return all;
}

TEST(Faults, ASinkThatBlocksForASecondDelaysTheLogNotTheSound) {
  VirtualOutput output(nimbara::platform::VirtualDevice::Options{});  // real time
  std::atomic<int> entries{0};
  nimbara::setLogSink([&](std::string_view line) {
    // The second and third callbacks after the priming, and the caller's
    // first poll, each stall the sink for a second.
    const bool entry = line.rfind("AQOutputCallback", 0) == 0;
    const int n = entry ? ++entries : 0;
    if (n == 5 || n == 6 || line.rfind("wait...", 0) == 0) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  });
  const auto heard = playLedInRealTime(output);
  nimbara::flushLog();
  nimbara::setLogSink({});
  EXPECT_EQ(heard, heardLed());
  EXPECT_EQ(output->underruns(), 0u);
}

TEST(Faults, ASinkThatThrowsLosesItsLinesAndNothingElse) {
  VirtualOutput output(nimbara::platform::VirtualDevice::Options{});
  std::atomic<int> calls{0};
  nimbara::setLogSink([&](std::string_view) {
    ++calls;
    throw std::runtime_error("sink failure");
  });
  const auto heard = playLedInRealTime(output);
  nimbara::flushLog();
  nimbara::setLogSink({});
  EXPECT_EQ(heard, heardLed());
  EXPECT_GT(calls.load(), 20);
}

// An output that checks every transmission it is handed: decoded, and equal
// sample for sample to the rendering of what it decodes to.
class CheckingDevice : public nimbara::platform::Backend {
 public:
  const char* name() const override { return "checking"; }
  std::int32_t openStream(const NimbaraStreamFormat&,
                          std::unique_ptr<nimbara::platform::OutputStream>* stream) override {
    *stream = std::make_unique<Stream>(*this);
    return 0;
  }
  std::int32_t routeName(std::string* route) override {
    *route = "Headphones";
    return 0;
  }
  void sleep(double) override { std::this_thread::yield(); }

  std::atomic<int> exact{0}, wrong{0};
  std::mutex mutex;
  std::vector<int> sentBy;  // the red value of every exact transmission

 private:
  class Stream : public nimbara::platform::OutputStream {
   public:
    explicit Stream(CheckingDevice& device) : device_(device) { samples_.reserve(17640 * 2); }
    std::int32_t enqueued(const std::int16_t* samples, std::size_t frames) override {
      const std::size_t n = std::min(frames * 2, samples_.capacity() - samples_.size());
      samples_.insert(samples_.end(), samples, samples + n);
      return 0;
    }
    std::int32_t play(const std::int16_t*, std::size_t, const std::atomic<bool>&) override {
      return 0;
    }
    std::int32_t close() override {
      nimbara::Receiver receiver(44100, 2);
      receiver.push(samples_.data(), samples_.size() / 2);
      receiver.finish();
      const auto found = receiver.take();
      const bool decoded = found.size() == 1 && !found[0].damaged;
      if (decoded && samples_ == nimbara::test::ledCommandSignal(4, found[0].red, 0, 0, 0,
                                                                 found[0].time, 17640)) {
        ++device_.exact;
        std::lock_guard lock(device_.mutex);
        device_.sentBy.push_back(found[0].red);
      } else {
        ++device_.wrong;
      }
      return 0;
    }

   private:
    CheckingDevice& device_;
    std::vector<std::int16_t> samples_;
  };
};

int testSeconds(int standard) {
  const char* text = std::getenv("NIMBARA_STRESS_SECONDS");
  return text != nullptr ? std::atoi(text) : standard;
}

TEST(Faults, FourThreadsWithTheFixedUnitsClearedBetweenTransmissions) {
  nimbara::setLogSink({});
  auto device = std::make_shared<CheckingDevice>();
  nimbara::platform::setBackend(device);
  const auto until = Clock::now() + std::chrono::seconds(testSeconds(60));
  std::vector<int> sent(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; Clock::now() < until; ++i) {
        FrameNode* frame = createLightLedProtocol(static_cast<std::uint8_t>(t), 0, 0, 0,
                                                  static_cast<std::int16_t>(i));
        if (executeFunction(frame, 1, 35280, nullptr) == 0) ++sent[t];
        if (t == 0) clearProtocolUnit();  // the next frame builds a fresh set
      }
    });
  }
  for (auto& thread : threads) thread.join();
  nimbara::platform::waitUntilIdle();
  nimbara::platform::setBackend(nullptr);
  EXPECT_EQ(device->wrong.load(), 0);
  for (int t = 0; t < 4; ++t) {
    EXPECT_GT(sent[t], 0);
    EXPECT_EQ(std::count(device->sentBy.begin(), device->sentBy.end(), t), sent[t]) << t;
  }
}

std::size_t entriesIn(const char* folder) {
  std::size_t count = 0;
  if (DIR* dir = opendir(folder)) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

std::size_t residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6));
  }
  return 0;
}

TEST(Faults, TenThousandTransmissionsLeaveNothingBehind) {
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0;
  options.record = false;
  VirtualOutput output(options);
  nimbara::setLogSink({});
  auto transmit = [](int n) {
    for (int i = 0; i < n; ++i) {
      ASSERT_EQ(
          executeFunction(createEchoProtocol(static_cast<std::uint32_t>(i)), 3, 35280, nullptr), 0);
    }
    nimbara::platform::waitUntilIdle();
  };
  transmit(200);  // the allocator and the log settle first
  const std::size_t fds = entriesIn("/proc/self/fd");
  const std::size_t threads = entriesIn("/proc/self/task");
  const std::size_t memory = residentKiB();
  transmit(10000);
  EXPECT_EQ(nimbara::platform::activeQueues(), 0u);
  EXPECT_EQ(entriesIn("/proc/self/fd"), fds);
  EXPECT_EQ(entriesIn("/proc/self/task"), threads);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(residentKiB(), memory + 2048);  // sanitizers keep freed memory in quarantine
#else
  (void)memory;
#endif
}

}  // namespace
