// The native PipeWire backend against the private PipeWire the test script
// starts (NIMBARA_TEST_SERVER=pipewire, its graph allowed 44100 Hz or not,
// NIMBARA_TEST_SINK_RATE; null sinks "headphones", the default, and
// "speaker"): it reads the sinks' routes, levels and rates as the sound-server
// backend does, hears a sink's monitor, refuses a graph at another rate unless
// allowed to resample, reaches the sink bit for bit at 44100 Hz or reports the
// cycles it missed, and a stream that the queue starves in the middle of its
// sound fails.
#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/device/route.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/signal/signal_format.h>

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
#include <future>
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

std::uint32_t graphRate() {
  const char* rate = std::getenv("NIMBARA_TEST_SINK_RATE");
  return rate != nullptr ? static_cast<std::uint32_t>(std::stoul(rate)) : 48000;
}

// Polls `done` every 10 ms for up to 5 s: the server applies a change a moment
// after pactl returns.
template <typename Done>
bool eventually(Done done) {
  for (int i = 0; i < 500; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

bool pactl(const std::string& arguments) {
  return std::system(("pactl " + arguments).c_str()) == 0;
}

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

// The sinks as the presence rule, the tool's status and outputs see them, the
// same as through the server's PulseAudio interface.
TEST_F(PipeWireTest, TheSinksGiveRouteLevelAndOutputs) {
  REQUIRE_PIPEWIRE();
  EXPECT_EQ(nimbara::platform::defaultBackendName(), "pipewire");
  auto headphones = nimbara::platform::makeBackend("pipewire");
  auto speaker = nimbara::platform::makeBackend("pipewire:speaker");
  std::string route;
  ASSERT_EQ(headphones->routeName(&route), 0);
  EXPECT_EQ(route, "Headphones");
  ASSERT_EQ(speaker->routeName(&route), 0);
  EXPECT_EQ(route, "Speaker");
  EXPECT_EQ(PipeWireDevice("nosuch").routeName(&route), NIMBARA_AUDIO_ERR_NO_ROUTE);
  nimbara::platform::setBackend(headphones);
  EXPECT_TRUE(isHeadsetPluggedIn());
  nimbara::platform::setBackend(speaker);
  EXPECT_FALSE(isHeadsetPluggedIn());

  // The level in the sound server's percent, and the mute flag, of each sink.
  ASSERT_TRUE(pactl("set-sink-volume headphones 50%") && pactl("set-sink-mute speaker 1"));
  nimbara::platform::OutputLevel level;
  EXPECT_TRUE(eventually([&] {
    return headphones->outputLevel(&level) == 0 && std::abs(level.volumePercent - 50) < 1 &&
           !level.muted;
  })) << level.volumePercent;
  EXPECT_TRUE(eventually([&] { return speaker->outputLevel(&level) == 0 && level.muted; }));
  ASSERT_TRUE(pactl("set-sink-volume headphones 100%") && pactl("set-sink-mute speaker 0"));
  EXPECT_TRUE(eventually([&] {
    return headphones->outputLevel(&level) == 0 && std::abs(level.volumePercent - 100) < 1;
  }));

  std::vector<nimbara::platform::OutputInfo> outputs;
  ASSERT_EQ(speaker->listOutputs(&outputs), 0);
  std::vector<std::string> seen;
  for (const auto& output : outputs) {
    seen.push_back(output.name + (output.isDefault ? "*" : "") + " " + output.route + " " +
                   std::to_string(output.rate) + (output.exact ? " exact" : ""));
  }
  const std::string rate = std::to_string(graphRate()) + (graphAt44100() ? " exact" : "");
  EXPECT_THAT(
      seen, ::testing::IsSupersetOf({"headphones* Headphones " + rate, "speaker Speaker " + rate}));

  // Without a daemon: no server, and not the default backend.
  const std::string runtime = std::getenv("PIPEWIRE_RUNTIME_DIR");
  setenv("PIPEWIRE_RUNTIME_DIR", "/nonexistent/nimbara", 1);
  EXPECT_EQ(PipeWireDevice().routeName(&route), NIMBARA_AUDIO_ERR_NO_SERVER);
  EXPECT_NE(nimbara::platform::defaultBackendName(), "pipewire");
  setenv("PIPEWIRE_RUNTIME_DIR", runtime.c_str(), 1);
}

// A capture of a sink's monitor hears a transmission played on that sink.
TEST_F(PipeWireTest, ACaptureHearsWhatASinkPlays) {
  REQUIRE_PIPEWIRE();
  auto device = std::make_shared<PipeWireDevice>("speaker", true);
  std::unique_ptr<nimbara::platform::CaptureStream> capture;
  EXPECT_EQ(device->openCapture("nosuch", &capture), NIMBARA_AUDIO_ERR_NO_SUCH_NAME);
  EXPECT_EQ(device->openCapture("nosuch.monitor", &capture), NIMBARA_AUDIO_ERR_NO_SUCH_NAME);
  ASSERT_EQ(device->openCapture("speaker.monitor", &capture), 0);
  nimbara::platform::setBackend(device);
  auto played = std::async(std::launch::async, [] { return doLightLed(9, 8, 7, 6, 500); });
  nimbara::Receiver receiver(NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS);
  std::vector<nimbara::Transmission> heard;
  std::vector<std::int16_t> chunk(NIMBARA_FRAMES_PER_BUFFER * NIMBARA_CHANNELS);
  // Up to 5 s of the monitor, a transmission being 0.5 s long.
  for (int i = 0; i < 300 && heard.empty(); ++i) {
    ASSERT_EQ(capture->read(chunk.data(), NIMBARA_FRAMES_PER_BUFFER), 0);
    receiver.push(chunk.data(), NIMBARA_FRAMES_PER_BUFFER);
    for (auto& t : receiver.take()) heard.push_back(t);
  }
  EXPECT_EQ(played.get(), 0);
  ASSERT_FALSE(heard.empty()) << "the capture heard nothing";
  EXPECT_EQ(heard[0].command, "flash");
  EXPECT_EQ(heard[0].red, 9);
  EXPECT_FALSE(heard[0].damaged);
}

TEST_F(PipeWireTest, AGraphAtAnotherRateIsRefusedUnlessResamplingIsAllowed) {
  REQUIRE_PIPEWIRE();
  if (graphAt44100()) GTEST_SKIP() << "the graph may run at 44100 Hz here";
  auto device = std::make_shared<PipeWireDevice>("headphones");
  nimbara::platform::setBackend(device);
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_RATE);
  EXPECT_THAT(nimbaraAudioStatusText(NIMBARA_AUDIO_ERR_RATE), ::testing::HasSubstr("allow it"));
  nimbara::platform::PlaybackRate rate;
  ASSERT_EQ(device->playbackRate(&rate), 0);
  EXPECT_EQ(rate.rate, 48000u);
  EXPECT_FALSE(rate.exact);
  EXPECT_THAT(rate.howToAllow, ::testing::HasSubstr("default.clock.allowed-rates"));

  // Allowed through the session call: every transmission plays, none is
  // taken for a run-dry, and the log says the signal is resampled.
  nimbara::test::LogCapture log;
  ASSERT_EQ(nimbaraAudioSessionSetAllowResampling(true), 0);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(doLightLed(1, 2, 3, 4, 100), 0) << i;
  nimbara::platform::waitUntilIdle();
  EXPECT_THAT(log.take(), ::testing::Contains(::testing::HasSubstr("the signal is resampled")));
  ASSERT_EQ(nimbaraAudioSessionSetAllowResampling(false), 0);
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_RATE);
}

// Each transmission reaches the sink bit for bit or fails: a cycle the graph
// ran without the stream (this process late on a loaded machine) is reported,
// and one that played whole is never taken for a run-dry.
TEST_F(PipeWireTest, AtTheSignalsRateItReachesTheSinkBitForBitOrFailsAndAStarvedStreamFails) {
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
  std::vector<int> failed;
  for (int red = 1; red <= 20; ++red) {
    const std::int32_t status = doLightLed(static_cast<std::uint8_t>(red), 2, 3, 4, 500);
    if (status != 0) failed.push_back(red);
    EXPECT_THAT(status, ::testing::AnyOf(0, NIMBARA_AUDIO_ERR_RAN_DRY)) << red;
  }
  nimbara::platform::setBackend(
      std::make_shared<test_support::LateStreamBackend>(device, 2, std::chrono::milliseconds(300)));
  EXPECT_EQ(doLightLed(99, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_RAN_DRY);
  nimbara::platform::waitUntilIdle();
  // Everything played has reached the recording once it has grown by the
  // monitor's latency and more (0.8 s).
  const std::uintmax_t played = fs::file_size(recording);
  EXPECT_TRUE(eventually([&] { return fs::file_size(recording) > played + 4 * 44100 * 4 / 5; }));
  const auto samples = test_support::readSamples(recording);
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
  EXPECT_EQ(missing, failed) << "recorded bit for bit exactly when the stream succeeded";
  EXPECT_LE(failed.size(), 10u) << "most go out whole even on a loaded machine";
  // The starved one did not arrive whole, and was reported.
  const auto starved = trimmedFlash(99);
  EXPECT_EQ(std::search(samples.begin(), samples.end(), starved.begin(), starved.end()),
            samples.end());
  fs::remove_all(dir);
}

}  // namespace
