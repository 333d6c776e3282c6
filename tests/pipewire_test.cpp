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
#include "support/sound_server.h"

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
  const pid_t parec = test_support::recordHeadphoneMonitor(recording);
  ASSERT_NE(parec, -1);
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
  nimbara::platform::setBackend(
      std::make_shared<test_support::LateStreamBackend>(device, 2, std::chrono::milliseconds(300)));
  EXPECT_EQ(doLightLed(99, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_RAN_DRY);
  nimbara::platform::waitUntilIdle();
  const auto last = trimmedFlash(20);
  std::vector<std::int16_t> samples;
  for (int i = 0; i < 500; ++i) {
    samples = test_support::readSamples(recording);
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
