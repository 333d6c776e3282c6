// Against the real sound server that the test script starts (its default
// sink "Headphones", a second sink "Speaker"): PulseAudio, or PipeWire through
// pipewire-pulse, named by NIMBARA_TEST_SERVER, whose sinks play our streams
// at NIMBARA_TEST_SINK_RATE; and against private servers of the same kind
// that a test starts and kills itself.
#include <nimbara/api/NimbaraSDK.h>
#include <nimbara/device/route.h>
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/signal/playback.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "platform/pulse/pulse_device.h"
#include "support/expected_signal.h"
#include "support/log_capture.h"
#include "support/signals.h"
#include "support/sound_server.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using nimbara::platform::PulseDevice;
using nimbara::test::expectedFrameSignal;
using nimbara::test::LogCapture;
using nimbara::test::stereo;
using nimbara::test::withParity;
using Clock = std::chrono::steady_clock;

#define REQUIRE_TEST_SERVER()                                              \
  if (std::getenv("NIMBARA_TEST_PULSE") == nullptr) {                      \
    GTEST_SKIP() << "no test PulseAudio server (scripts/test starts one)"; \
  }

// Which server runs: "pulseaudio" or "pipewire".
std::string serverKind() {
  const char* kind = std::getenv("NIMBARA_TEST_SERVER");
  return kind != nullptr ? kind : "pulseaudio";
}

// The rate the test server's sinks run at while our stream plays.
std::uint32_t expectedSinkRate() {
  const char* rate = std::getenv("NIMBARA_TEST_SINK_RATE");
  return rate != nullptr ? static_cast<std::uint32_t>(std::stoul(rate)) : 44100;
}

#define REQUIRE_EXACT_SINK()                                                          \
  if (expectedSinkRate() != 44100) {                                                  \
    GTEST_SKIP() << "the sinks run at " << expectedSinkRate() << " Hz: no bit-exact " \
                 << "recording (ResamplingIsReportedExactlyWhenTheRecordingDiffers)"; \
  }

// Polls `done` every 10 ms for up to `limit`.
template <typename Done>
bool eventually(Done done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto until = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

pid_t spawn(const std::vector<std::string>& args, const std::string& output = {},
            bool ownGroup = false) {
  std::vector<char*> argv;
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!output.empty()) {
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
  }
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  // A server of several processes gets a group of its own, to be killed as one.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (ownGroup) {
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
  }
  pid_t pid = -1;
  posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

void stop(pid_t pid, int sig = SIGTERM, bool group = false) {
  if (pid <= 0) return;
  kill(group ? -pid : pid, sig);
  waitpid(pid, nullptr, 0);
}

struct TempDir {
  fs::path path;
  TempDir() {
    char name[] = "/tmp/nimbara-test.XXXXXX";
    path = mkdtemp(name);
  }
  ~TempDir() { fs::remove_all(path); }
};

// A sink's monitor, recorded by parec into a file.
class MonitorRecording {
 public:
  MonitorRecording(const std::string& source, const fs::path& file) : file_(file) {
    pid_ = spawn({"parec", "-d", source, "--raw", "--format=s16le", "--rate=44100", "--channels=2",
                  "--latency-msec=20"},
                 file.string());
  }
  ~MonitorRecording() { stop(pid_); }
  bool started() {
    return eventually([&] { return fs::exists(file_) && fs::file_size(file_) > 0; });
  }
  // Waits until the recording holds `expected` somewhere.
  bool contains(const std::vector<std::int16_t>& expected) {
    return eventually([&] {
      const auto samples = test_support::readSamples(file_);
      return std::search(samples.begin(), samples.end(), expected.begin(), expected.end()) !=
             samples.end();
    });
  }

 private:
  fs::path file_;
  pid_t pid_;
};

class PulseTest : public ::testing::Test {
 protected:
  void TearDown() override {
    nimbara::platform::waitUntilIdle();
    nimbara::platform::setBackend(nullptr);
  }
};

// Makes `sink` the default and waits until the server says so: PipeWire's
// session manager applies a new default a moment after pactl returns.
bool setDefaultSink(const std::string& sink) {
  if (std::system(("pactl set-default-sink " + sink).c_str()) != 0) return false;
  for (int i = 0; i < 200; ++i) {
    std::FILE* pipe = popen("pactl get-default-sink", "r");
    char name[256] = "";
    if (pipe != nullptr) {
      if (std::fgets(name, sizeof name, pipe) == nullptr) name[0] = '\0';
      pclose(pipe);
    }
    if (std::string(name) == sink + "\n") return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));  // polling the server
  }
  return false;
}

TEST_F(PulseTest, AHeadphoneSinkIsTheRouteAndASpeakerIsNot) {
  REQUIRE_TEST_SERVER();
  auto device = std::make_shared<PulseDevice>();
  nimbara::platform::setBackend(device);
  std::string route;
  ASSERT_EQ(device->routeName(&route), 0);
  EXPECT_EQ(route, "Headphones");
  EXPECT_TRUE(isHeadsetPluggedIn());
  ASSERT_TRUE(setDefaultSink("speaker"));
  EXPECT_FALSE(isHeadsetPluggedIn());
  ASSERT_TRUE(setDefaultSink("headphones"));
  EXPECT_TRUE(checkDeviceForInternal());
  nimbara::platform::OutputLevel level;
  ASSERT_EQ(device->outputLevel(&level), 0);
  EXPECT_DOUBLE_EQ(level.volumePercent, 100.0);
  EXPECT_FALSE(level.muted);
}

TEST_F(PulseTest, ATransmissionReachesTheSinkBitForBit) {
  REQUIRE_TEST_SERVER();
  REQUIRE_EXACT_SINK();
  nimbara::platform::setBackend(std::make_shared<PulseDevice>());
  TempDir dir;
  MonitorRecording recording("headphones.monitor", dir.path / "monitor.raw");
  ASSERT_TRUE(recording.started());
  FrameNode* frame = createSprayWithLightLedGetTankIdProtocol(255, 0, 128, 1, 500);
  ASSERT_EQ(executeFunction(frame, 2, 35280, nullptr), 0);
  nimbara::platform::waitUntilIdle();
  const auto expected =
      stereo(expectedFrameSignal(withParity("00000101"
                                            "11111111"
                                            "00000000"
                                            "10000000"
                                            "00000001"
                                            "0000000111110100")));
  EXPECT_TRUE(recording.contains(expected));
}

TEST_F(PulseTest, AFacadePuffReachesTheHeadphonesAndNoDeviceSendsNothing) {
  REQUIRE_TEST_SERVER();
  REQUIRE_EXACT_SINK();
  nimbara::platform::setBackend(std::make_shared<PulseDevice>());
  nimbara::setRunLoopPause([](double) {});
  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();
  TempDir dir;
  MonitorRecording recording("headphones.monitor", dir.path / "monitor.raw");
  ASSERT_TRUE(recording.started());
  sdk.puffAndFlashLedWithRed(0, 255, 7, 3, 2000);  // sprays 1000 ms
  nimbara::platform::waitUntilIdle();
  auto expected = nimbara::test::ledCommandSignal(5, 0, 255, 7, 3, 1000, 0);
  EXPECT_TRUE(recording.contains(expected));

  ASSERT_TRUE(setDefaultSink("speaker"));
  LogCapture log;
  EXPECT_THROW(sdk.puffAndFlashLedWithRed(0, 255, 7, 3, 2000), nimbara::NimbaraException);
  ASSERT_TRUE(setDefaultSink("headphones"));
  EXPECT_THAT(log.take(), ::testing::Not(::testing::Contains("#executeFunction 35280")));
  nimbara::setRunLoopPause({});
}

// A run-dry is reported only where the server said it ran dry: a hundred
// transmissions back to back on an unloaded machine all succeed.
TEST_F(PulseTest, CleanTransmissionsRaiseNoFalseAlarm) {
  REQUIRE_TEST_SERVER();
  nimbara::setLogSink({});
  nimbara::platform::setBackend(std::make_shared<PulseDevice>());
  int failed = 0;
  for (int i = 0; i < 100; ++i) {
    const std::int32_t status =
        executeFunction(createLightLedProtocol(1, 2, 3, 0, 100), 1, 17640, nullptr);
    if (status != 0) {
      ++failed;
      ADD_FAILURE() << "transmission " << i << ": " << nimbaraAudioStatusText(status);
    }
  }
  EXPECT_EQ(failed, 0);
}

// What playbackRate reports must be what a recording of the sink shows: exact
// when, and only when, a transmission arrives bit for bit.
TEST_F(PulseTest, ResamplingIsReportedExactlyWhenTheRecordingDiffers) {
  REQUIRE_TEST_SERVER();
  auto device = std::make_shared<PulseDevice>();
  EXPECT_EQ(device->setPreferredSampleRate(0), NIMBARA_AUDIO_ERR_INVALID);
  EXPECT_EQ(device->setPreferredSampleRate(44100.5), NIMBARA_AUDIO_ERR_INVALID);
  EXPECT_EQ(device->setPreferredSampleRate(std::nan("")), NIMBARA_AUDIO_ERR_INVALID);
  ASSERT_EQ(device->setPreferredSampleRate(44100), 0);
  nimbara::platform::PlaybackRate rate;
  ASSERT_EQ(device->playbackRate(&rate), 0);
  EXPECT_EQ(rate.rate, expectedSinkRate());
  EXPECT_EQ(rate.exact, expectedSinkRate() == 44100);
  if (rate.exact) {
    EXPECT_EQ(rate.howToAllow, "");
  } else {
    EXPECT_THAT(rate.howToAllow,
                ::testing::HasSubstr(serverKind() == "pipewire" ? "default.clock.allowed-rates"
                                                                : "default-sample-rate = 44100"));
  }

  nimbara::platform::setBackend(device);
  TempDir dir;
  MonitorRecording recording("headphones.monitor", dir.path / "monitor.raw");
  ASSERT_TRUE(recording.started());
  ASSERT_EQ(executeFunction(createLightLedProtocol(9, 8, 7, 6, 500), 1, 35280, nullptr), 0);
  nimbara::platform::waitUntilIdle();
  const auto expected = nimbara::test::ledCommandSignal(4, 9, 8, 7, 6, 500, 0);
  // The whole transmission has reached the monitor once the recording has
  // grown past it by the monitor's latency.
  const std::uintmax_t played = fs::file_size(dir.path / "monitor.raw");
  ASSERT_TRUE(
      eventually([&] { return fs::file_size(dir.path / "monitor.raw") > played + 4 * 44100 / 5; }));
  const auto samples = test_support::readSamples(dir.path / "monitor.raw");
  const bool bitForBit = std::search(samples.begin(), samples.end(), expected.begin(),
                                     expected.end()) != samples.end();
  EXPECT_EQ(bitForBit, rate.exact) << "the sink runs at " << rate.rate << " Hz";
}

// The interface a front end uses: the sinks listed with their routes and
// rates, and a capture of a sink's monitor that hears a transmission.
TEST_F(PulseTest, TheOutputsAreListedAndACaptureHearsWhatASinkPlays) {
  REQUIRE_TEST_SERVER();
  auto backend = nimbara::platform::makeBackend("pulse");
  std::vector<nimbara::platform::OutputInfo> outputs;
  ASSERT_EQ(backend->listOutputs(&outputs), 0);
  auto named = [&](const std::string& name) {
    auto found = std::find_if(outputs.begin(), outputs.end(),
                              [&](const auto& output) { return output.name == name; });
    return found != outputs.end() ? *found : nimbara::platform::OutputInfo{};
  };
  EXPECT_EQ(named("headphones").route, "Headphones");
  EXPECT_TRUE(named("headphones").isDefault);
  EXPECT_EQ(named("speaker").route, "Speaker");
  EXPECT_FALSE(named("speaker").isDefault);
  EXPECT_EQ(named("speaker").rate, expectedSinkRate());
  EXPECT_EQ(named("speaker").exact, expectedSinkRate() == 44100);

  std::unique_ptr<nimbara::platform::CaptureStream> capture;
  EXPECT_EQ(backend->openCapture("nosuch", &capture), NIMBARA_AUDIO_ERR_NO_SUCH_NAME);
  ASSERT_EQ(backend->openCapture("speaker.monitor", &capture), 0);
  nimbara::platform::setBackend(nimbara::platform::makeBackend("pulse:speaker"));
  auto played = std::async(std::launch::async, [] {
    return executeFunction(createLightLedProtocol(9, 8, 7, 6, 500), 1, 35280, nullptr);
  });
  nimbara::Receiver receiver(NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS);
  std::vector<nimbara::Transmission> heard;
  std::vector<std::int16_t> chunk(NIMBARA_FRAMES_PER_BUFFER * NIMBARA_CHANNELS);
  // Up to 5 s of the monitor, a transmission being 0.4 s long.
  for (int i = 0; i < 300 && heard.empty(); ++i) {
    ASSERT_EQ(capture->read(chunk.data(), NIMBARA_FRAMES_PER_BUFFER), 0);
    receiver.push(chunk.data(), NIMBARA_FRAMES_PER_BUFFER);
    for (auto& t : receiver.take()) heard.push_back(t);
  }
  EXPECT_EQ(played.get(), 0);
  nimbara::platform::waitUntilIdle();
  ASSERT_FALSE(heard.empty()) << "the capture heard nothing";
  EXPECT_EQ(heard[0].command, "flash");
  EXPECT_EQ(heard[0].red, 9);
  EXPECT_FALSE(heard[0].damaged);
}

TEST_F(PulseTest, NoServerGivesAStatus) {
  nimbara::platform::setBackend(std::make_shared<PulseDevice>("unix:/nonexistent/nimbara"));
  LogCapture log;
  EXPECT_EQ(executeFunction(createAcquireProtocol(), 1, 17640, nullptr),
            NIMBARA_AUDIO_ERR_NO_SERVER);
  EXPECT_THAT(log.take(), ::testing::Contains("#newOutput err=-1"));
  EXPECT_FALSE(isHeadsetPluggedIn());
  nimbara::platform::PlaybackRate rate;
  EXPECT_EQ(PulseDevice("unix:/nonexistent/nimbara").playbackRate(&rate),
            NIMBARA_AUDIO_ERR_NO_SERVER);
  std::vector<nimbara::platform::OutputInfo> outputs;
  EXPECT_EQ(PulseDevice("unix:/nonexistent/nimbara").listOutputs(&outputs),
            NIMBARA_AUDIO_ERR_NO_SERVER);
  std::unique_ptr<nimbara::platform::CaptureStream> capture;
  EXPECT_EQ(PulseDevice("unix:/nonexistent/nimbara").openCapture("", &capture),
            NIMBARA_AUDIO_ERR_NO_SERVER);
}

// A server of the test's own, of the same kind as the test server, to be killed.
class PrivateServer {
 public:
  PrivateServer() {
    if (serverKind() == "pipewire") {
      // The script stays in the foreground with its processes in one group.
      socket_ = (dir_.path / "run/pulse/native").string();
      group_ = true;
      pid_ = spawn({std::getenv("NIMBARA_TEST_PRIVATE_SERVER"), dir_.path.string()}, {}, true);
      return;
    }
    const fs::path run = dir_.path / "run";
    fs::create_directories(run);
    fs::permissions(run, fs::perms::owner_all);
    socket_ = (dir_.path / "native").string();
    std::ofstream(dir_.path / "server.pa")
        << "load-module module-native-protocol-unix socket=" << socket_ << " auth-anonymous=1\n"
        << "load-module module-null-sink sink_name=headphones "
           "sink_properties=device.description=Headphones rate=44100 format=s16le channels=2\n";
    const std::string home = "HOME=" + dir_.path.string();
    const std::string runtime = "XDG_RUNTIME_DIR=" + run.string();
    pid_ = spawn({"env", home, runtime, "pulseaudio", "--daemonize=no", "-n", "-F",
                  (dir_.path / "server.pa").string(), "--exit-idle-time=-1", "--disallow-exit",
                  "--use-pid-file=no"});
  }
  ~PrivateServer() { stop(pid_, SIGKILL, group_); }

  std::string server() const { return "unix:" + socket_; }
  bool ready() {
    PulseDevice device(server());
    std::string route;
    return eventually([&] {
      return (!group_ || fs::exists(dir_.path / "ready")) && device.routeName(&route) == 0;
    });
  }
  void kill() {
    stop(pid_, SIGKILL, group_);
    pid_ = -1;
  }

 private:
  TempDir dir_;
  std::string socket_;
  pid_t pid_ = -1;
  bool group_ = false;
};

TEST_F(PulseTest, AServerKilledMidwayFailsTheTransmissionWithoutHangingTheCaller) {
  REQUIRE_TEST_SERVER();
  PrivateServer server;
  ASSERT_TRUE(server.ready());
  nimbara::platform::setBackend(std::make_shared<PulseDevice>(server.server()));
  LogCapture log;
  auto call = std::async(std::launch::async,
                         [] { return executeFunction(createEchoProtocol(7), 3, 35280, nullptr); });
  ASSERT_TRUE(eventually([&] {
    const auto lines = log.lines();
    return std::find(lines.begin(), lines.end(), "#play wait before.") != lines.end();
  }));
  server.kill();
  ASSERT_EQ(call.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(call.get(), NIMBARA_AUDIO_ERR_LOST);
  nimbara::platform::waitUntilIdle();
  const auto lines = log.take();
  EXPECT_THAT(lines, ::testing::Contains(" [ERROR] audio output lost, playing on without sound"));
  EXPECT_THAT(lines, ::testing::Contains(" -> free(aqc);"));
  EXPECT_EQ(executeFunction(createEchoProtocol(7), 3, 35280, nullptr), NIMBARA_AUDIO_ERR_NO_SERVER);
}

}  // namespace
