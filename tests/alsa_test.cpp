// The ALSA backend through alsa-lib's own plugins, defined by an asoundrc the
// test writes: `file` for the exact bytes, `null`, `plug` over a PCM fixed at
// 48000 Hz (refused: it would have to resample), and `pulse` into the test
// script's sound server, recorded bit for bit from the headphones' monitor.
#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/device/route.h>
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/signal/playback.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/alsa/alsa_device.h"
#include "support/sound_server.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using nimbara::platform::AlsaDevice;

// Up to the last sound: the silence after it is as long as the output plays on.
std::size_t soundLength(const std::vector<std::int16_t>& samples) {
  std::size_t end = samples.size();
  while (end > 0 && samples[end - 1] == 0) --end;
  return end;
}

std::vector<std::int16_t> trimmed(std::vector<std::int16_t> samples) {
  samples.resize(soundLength(samples));
  return samples;
}

bool contains(const std::vector<std::int16_t>& haystack, const std::vector<std::int16_t>& needle) {
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) !=
         haystack.end();
}

// The asoundrc, read after alsa-lib's own configuration.
class AlsaTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char name[] = "/tmp/nimbara-alsa.XXXXXX";
    dir_ = mkdtemp(name);
    std::ofstream(dir_ / "asoundrc")
        << "pcm.exact { type file slave.pcm \"null\" file \"" << (dir_ / "out.raw").string()
        << "\" format \"raw\" }\n"
        << "pcm.fixed48k { type plug slave { pcm \"null\" rate 48000 } }\n"
        << "pcm.headphones { type pulse device \"headphones\" }\n";
    setenv("ALSA_CONFIG_PATH",
           ("/usr/share/alsa/alsa.conf:" + (dir_ / "asoundrc").string()).c_str(), 1);
  }
  static void TearDownTestSuite() { fs::remove_all(dir_); }
  void TearDown() override {
    nimbara::platform::waitUntilIdle();
    nimbara::platform::setBackend(nullptr);
  }

  static std::int32_t flash(std::uint8_t red) { return doLightLed(red, 2, 3, 4, 500); }
  static std::vector<std::int16_t> flashSignal(long long red) {
    return nimbara::renderCommand(nimbara::makeCommand("flash", {red, 2, 3, 4, 500}));
  }

  static inline fs::path dir_;
};

TEST_F(AlsaTest, TheFilePluginGetsTheExactBytesAndTheNullPluginTakesThem) {
  nimbara::setLogSink({});
  auto device = std::make_shared<AlsaDevice>("exact");
  nimbara::platform::setBackend(device);
  ASSERT_EQ(flash(1), 0);
  nimbara::platform::waitUntilIdle();
  // The file holds the signal from its first sample, then silence only.
  const auto written = test_support::readSamples(dir_ / "out.raw");
  const auto expected = flashSignal(1);
  ASSERT_GE(written.size(), soundLength(expected));
  EXPECT_TRUE(
      std::equal(expected.begin(), expected.begin() + soundLength(expected), written.begin()));
  EXPECT_EQ(soundLength(written), soundLength(expected));
  EXPECT_NE(soundLength(flashSignal(2)), 0u);
  EXPECT_FALSE(contains(written, trimmed(flashSignal(2))));

  nimbara::platform::setBackend(std::make_shared<AlsaDevice>("null"));
  EXPECT_EQ(flash(1), 0);
}

TEST_F(AlsaTest, APcmThatWouldResampleOrDoesNotExistIsRefusedAndPresenceCannotBeTold) {
  nimbara::setLogSink({});
  auto fixed = std::make_shared<AlsaDevice>("fixed48k");
  nimbara::platform::setBackend(fixed);
  EXPECT_EQ(flash(1), NIMBARA_AUDIO_ERR_RATE);
  nimbara::platform::PlaybackRate rate;
  ASSERT_EQ(fixed->playbackRate(&rate), 0);
  EXPECT_EQ(rate.rate, 48000u);
  EXPECT_FALSE(rate.exact);
  EXPECT_THAT(rate.howToAllow, ::testing::HasSubstr("cannot run at 44100 Hz"));

  auto exact = std::make_shared<AlsaDevice>("exact");
  ASSERT_EQ(exact->playbackRate(&rate), 0);
  EXPECT_TRUE(rate.exact);
  std::string route;
  ASSERT_EQ(exact->routeName(&route), 0);
  EXPECT_THAT(route, ::testing::HasSubstr("cannot tell"));
  nimbara::platform::setBackend(exact);
  EXPECT_FALSE(isHeadsetPluggedIn());
  nimbara::platform::OutputLevel level;
  EXPECT_EQ(exact->outputLevel(&level), NIMBARA_AUDIO_ERR_NOT_SUPPORTED);

  nimbara::platform::setBackend(std::make_shared<AlsaDevice>("nosuch"));
  EXPECT_EQ(flash(1), NIMBARA_AUDIO_ERR_NO_SUCH_NAME);
  EXPECT_STREQ(nimbara::platform::makeBackend("alsa:exact")->name(), "alsa");
  EXPECT_THROW(nimbara::platform::makeBackend("alsa:"), std::invalid_argument);
}

TEST_F(AlsaTest, ThePulsePluginReachesTheServerBitForBit) {
  if (std::getenv("NIMBARA_TEST_PULSE") == nullptr) GTEST_SKIP() << "no test sound server";
  const char* sinkRate = std::getenv("NIMBARA_TEST_SINK_RATE");
  if (sinkRate != nullptr && std::string(sinkRate) != "44100") GTEST_SKIP() << "sinks resample";
  nimbara::setLogSink({});
  const fs::path recording = dir_ / "monitor.raw";
  const pid_t parec = test_support::recordHeadphoneMonitor(recording);
  ASSERT_NE(parec, -1);
  nimbara::platform::setBackend(std::make_shared<AlsaDevice>("headphones"));
  EXPECT_EQ(flash(7), 0);
  nimbara::platform::waitUntilIdle();
  bool heard = false;
  for (int i = 0; i < 500 && !heard; ++i) {
    heard = contains(test_support::readSamples(recording), trimmed(flashSignal(7)));
    if (!heard) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(parec, SIGTERM);
  waitpid(parec, nullptr, 0);
  EXPECT_TRUE(heard);
}

}  // namespace
