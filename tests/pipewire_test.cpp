// The native PipeWire backend against the private PipeWire the test script
// starts (NIMBARA_TEST_SERVER=pipewire, its graph allowed 44100 Hz or not,
// NIMBARA_TEST_SINK_RATE): it refuses a graph at another rate unless allowed
// to resample, reaches the sink bit for bit at 44100 Hz, and a stream that the
// queue starves in the middle of its sound fails.
#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/pipewire/pipewire_device.h"
#include "support/log_capture.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using nimbara::platform::Backend;
using nimbara::platform::OutputStream;
using nimbara::platform::PipeWireDevice;

bool graphAt44100() {
  const char* rate = std::getenv("NIMBARA_TEST_SINK_RATE");
  return rate != nullptr && std::string(rate) == "44100";
}

#define REQUIRE_PIPEWIRE()                                             \
  if (std::getenv("NIMBARA_TEST_SERVER") == nullptr ||                 \
      std::string(std::getenv("NIMBARA_TEST_SERVER")) != "pipewire") { \
    GTEST_SKIP() << "no test PipeWire (scripts/test starts one)";      \
  }

std::vector<std::int16_t> trimmedFlash(long long red) {
  auto samples = nimbara::renderCommand(nimbara::makeCommand("flash", {red, 2, 3, 4, 500}));
  while (!samples.empty() && samples.back() == 0) samples.pop_back();
  return samples;
}

std::vector<std::int16_t> readSamples(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::int16_t> samples(bytes.size() / 2);
  std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
  return samples;
}

// Holds the queue's thread back before its second buffer: the graph takes the
// first and then finds nothing, in the middle of the frame's sound.
class StarvingBackend : public Backend {
 public:
  explicit StarvingBackend(std::shared_ptr<Backend> inner) : inner_(std::move(inner)) {}
  const char* name() const override { return "starving"; }
  std::int32_t routeName(std::string* name) override { return inner_->routeName(name); }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override {
    std::unique_ptr<OutputStream> inner;
    if (const std::int32_t status = inner_->openStream(format, &inner)) return status;
    *stream = std::make_unique<Stream>(std::move(inner));
    return 0;
  }

 private:
  class Stream : public OutputStream {
   public:
    explicit Stream(std::unique_ptr<OutputStream> inner) : inner_(std::move(inner)) {}
    std::int32_t play(const std::int16_t* samples, std::size_t frames,
                      const std::atomic<bool>& stop) override {
      // The fault under test: a thread that comes 300 ms late.
      if (++plays_ == 2) std::this_thread::sleep_for(std::chrono::milliseconds(300));
      return inner_->play(samples, frames, stop);
    }
    std::int32_t close() override { return inner_->close(); }

   private:
    std::unique_ptr<OutputStream> inner_;
    int plays_ = 0;
  };
  std::shared_ptr<Backend> inner_;
};

class PipeWireTest : public ::testing::Test {
 protected:
  void SetUp() override { nimbara::setLogSink({}); }
  void TearDown() override {
    nimbara::platform::waitUntilIdle();
    nimbara::platform::setBackend(nullptr);
  }
};

TEST_F(PipeWireTest, AGraphAtAnotherRateIsRefusedUnlessResamplingIsAllowed) {
  REQUIRE_PIPEWIRE();
  if (graphAt44100()) GTEST_SKIP() << "the graph may run at 44100 Hz here";
  auto strict = std::make_shared<PipeWireDevice>("headphones");
  nimbara::platform::setBackend(strict);
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_RATE);
  nimbara::platform::PlaybackRate rate;
  ASSERT_EQ(strict->playbackRate(&rate), 0);
  EXPECT_EQ(rate.rate, 48000u);
  EXPECT_FALSE(rate.exact);
  EXPECT_THAT(rate.howToAllow, ::testing::HasSubstr("default.clock.allowed-rates"));

  nimbara::test::LogCapture log;
  nimbara::platform::setBackend(std::make_shared<PipeWireDevice>("headphones", true));
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), 0);
  nimbara::platform::waitUntilIdle();
  EXPECT_THAT(log.take(), ::testing::Contains(::testing::HasSubstr("the signal is resampled")));
}

TEST_F(PipeWireTest, AtTheSignalsRateItReachesTheSinkBitForBitAndAStarvedStreamFails) {
  REQUIRE_PIPEWIRE();
  if (!graphAt44100()) GTEST_SKIP() << "the graph runs at 48000 Hz here";
  char name[] = "/tmp/nimbara-pw.XXXXXX";
  const fs::path dir = mkdtemp(name);
  const fs::path recording = dir / "monitor.raw";
  std::vector<std::string> args = {
      "parec",          "-d",           "headphones.monitor", "--raw",
      "--format=s16le", "--rate=44100", "--channels=2",       "--latency-msec=20"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, recording.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t parec = -1;
  ASSERT_EQ(posix_spawnp(&parec, "parec", &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  for (int i = 0; i < 500 && (!fs::exists(recording) || fs::file_size(recording) == 0); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // polling parec's start
  }
  // A node that is not there plays nowhere else.
  nimbara::platform::setBackend(std::make_shared<PipeWireDevice>("nosuch"));
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_NO_SUCH_NAME);
  auto device = std::make_shared<PipeWireDevice>("headphones");
  nimbara::platform::PlaybackRate rate;
  ASSERT_EQ(device->playbackRate(&rate), 0);
  EXPECT_TRUE(rate.exact);
  nimbara::platform::setBackend(device);
  for (int red = 1; red <= 20; ++red) {
    EXPECT_EQ(doLightLed(static_cast<std::uint8_t>(red), 2, 3, 4, 500), 0) << red;
  }
  nimbara::platform::setBackend(std::make_shared<StarvingBackend>(device));
  EXPECT_EQ(doLightLed(99, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_RAN_DRY);
  nimbara::platform::waitUntilIdle();
  const auto last = trimmedFlash(20);
  std::vector<std::int16_t> samples;
  for (int i = 0; i < 500; ++i) {
    samples = readSamples(recording);
    if (std::search(samples.begin(), samples.end(), last.begin(), last.end()) != samples.end()) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // polling the recording
  }
  kill(parec, SIGTERM);
  waitpid(parec, nullptr, 0);
  std::vector<int> missing;
  for (int red = 1; red <= 20; ++red) {
    const auto expected = trimmedFlash(red);
    if (std::search(samples.begin(), samples.end(), expected.begin(), expected.end()) ==
        samples.end()) {
      missing.push_back(red);
    }
  }
  EXPECT_THAT(missing, ::testing::IsEmpty()) << "not recorded bit for bit";
  // The starved one did not arrive whole, and was reported.
  const auto starved = trimmedFlash(99);
  EXPECT_EQ(std::search(samples.begin(), samples.end(), starved.begin(), starved.end()),
            samples.end());
  fs::remove_all(dir);
}

}  // namespace
