#include <nimbara/device/operations.h>
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/platform/audio_queue.h>
#include <nimbara/platform/wav_device.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/signal_units.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

#include "support/expected_signal.h"
#include "support/faulty_backend.h"
#include "support/log_capture.h"
#include "support/virtual_output.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define NIMBARA_EXPECTED_LEAK __lsan::ScopedDisabler expectedLeak
#else
#define NIMBARA_EXPECTED_LEAK
#endif

namespace {

using nimbara::test::Call;
using nimbara::test::expectedFrameSignal;
using nimbara::test::FaultyOutput;
using nimbara::test::LogCapture;
using nimbara::test::stereo;
using nimbara::test::VirtualOutput;
using nimbara::test::withParity;
using ::testing::ElementsAreArray;

const std::string kAcquirePayload = withParity("0000000100000000");

// The mono signal of the acquire frame followed by silence, `frames` long.
std::vector<std::int16_t> acquireSignal(std::size_t frames) {
  auto signal = expectedFrameSignal(kAcquirePayload);
  signal.resize(frames, 0);
  return signal;
}

std::string entry(std::uint32_t played, std::uint32_t target, int data, int disposedCount) {
  return "AQOutputCallback " + std::to_string(played) + " / " + std::to_string(target) +
         ", data=" + std::to_string(data) + ", disposedCount=" + std::to_string(disposedCount);
}

// Lines of the caller's thread, and those of the queue's thread, which may
// interleave with the caller's once the queue has started. The three priming
// renders run on the caller's thread before the start.
struct SplitLog {
  std::vector<std::string> caller;
  std::vector<std::string> audio;
};

SplitLog split(const std::vector<std::string>& lines) {
  SplitLog log;
  int entries = 0;
  for (const std::string& line : lines) {
    const bool entry = line.rfind("AQOutputCallback", 0) == 0;
    entries += entry ? 1 : 0;
    const bool audio =
        (entry && entries > 3) || line.rfind(" ", 0) == 0 || line == "#freeProtocolFrame";
    (audio ? log.audio : log.caller).push_back(line);
  }
  return log;
}

TEST(Playback, OneTransmissionLogsEveryStepAndReleasesEverything) {
  VirtualOutput output;
  initProtocolUnit();
  FrameNode* frame = createAcquireProtocol();
  LogCapture log;
  ASSERT_EQ(executeFunction(frame, 1, 17640, nullptr), 0);
  nimbara::platform::waitUntilIdle();
  SplitLog lines = split(log.take());

  const std::uint32_t target = 8820;
  const auto signal = acquireSignal(target);
  ASSERT_GE(lines.caller.size(), 8u);
  const std::vector<std::string> head(lines.caller.begin(), lines.caller.begin() + 8);
  EXPECT_EQ(head[0], "#executeFunction 17640");
  EXPECT_EQ(head[1], "aqc->protocolFrame add = " +
                         std::to_string(static_cast<long>(reinterpret_cast<intptr_t>(frame))));
  EXPECT_EQ(head[2].rfind("aqc->protocolFrame->protocol add = ", 0), 0u);
  EXPECT_EQ(head[3], "#sampleLen=8820");
  EXPECT_EQ(head[4], entry(0, target, 0, 0));
  EXPECT_EQ(head[5], entry(735, target, 0, 0));
  EXPECT_EQ(head[6], entry(1470, target, 0, 0));
  EXPECT_EQ(head[7], "#play wait before.");
  EXPECT_EQ(lines.caller.back(), "#play wait after.");
  for (std::size_t i = 8; i + 1 < lines.caller.size(); ++i) {
    EXPECT_EQ(lines.caller[i].rfind("wait... ", 0), 0u) << lines.caller[i];
  }

  // Buffer k comes back holding the render k, whose first frame is (k-1) x 735.
  std::vector<std::string> audio;
  for (std::uint32_t k = 1; k <= 9; ++k) {
    audio.push_back(entry((k + 2) * 735, target, signal[(k - 1) * 735], 0));
  }
  audio.insert(
      audio.end(),
      {entry(target, target, signal[9 * 735], 0), " -> AudioQueueDispose(aqc->queue, true);",
       "#freeProtocolFrame", " name=DXX -> free", " dispose return[1] aqc->disposedCount=1",
       entry(target, target, signal[10 * 735], 1), " dispose return[1] aqc->disposedCount=2",
       entry(target, target, signal[11 * 735], 2), " dispose return[1] aqc->disposedCount=3",
       " -> free(aqc);"});
  EXPECT_THAT(lines.audio, ElementsAreArray(audio));
}

TEST(Playback, TheOutputIsHandedTheFrameThenSilenceAndPlaysAllButTheLastTwoBuffers) {
  VirtualOutput output;
  ASSERT_EQ(executeFunction(createAcquireProtocol(), 1, 17641, nullptr), 0);  // odd: rounds down
  nimbara::platform::waitUntilIdle();
  const auto handed = stereo(acquireSignal(8820));
  EXPECT_EQ(output->enqueuedSamples(), handed);
  const std::vector<std::int16_t> heard(handed.begin(), handed.end() - 2 * 735 * 2);
  EXPECT_EQ(output->playedSamples(), heard);
}

TEST(Playback, SmallTargetsEndDuringPriming) {
  struct Case {
    unsigned long sampleLen;
    std::int32_t status;
    int entries;  // callback entry lines
  };
  // The end comes in the first, second or third priming call; the next
  // platform call then meets a disposed queue.
  const Case cases[] = {
      {0, NIMBARA_AUDIO_ERR_DISPOSED, 1},    {1, NIMBARA_AUDIO_ERR_DISPOSED, 1},
      {2, NIMBARA_AUDIO_ERR_DISPOSED, 2},    {1470, NIMBARA_AUDIO_ERR_DISPOSED, 2},
      {1472, NIMBARA_AUDIO_ERR_DISPOSED, 3}, {2940, NIMBARA_AUDIO_ERR_DISPOSED, 3}};
  for (const Case& c : cases) {
    VirtualOutput output;
    LogCapture log;
    EXPECT_EQ(executeFunction(createAcquireProtocol(), 1, c.sampleLen, nullptr), c.status)
        << c.sampleLen;
    nimbara::platform::waitUntilIdle();
    const auto lines = log.take();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const std::string& l) { return l.rfind("AQOutputCallback", 0) == 0; }),
        c.entries)
        << c.sampleLen;
    EXPECT_EQ(lines.back(), " dispose return[1] aqc->disposedCount=1") << c.sampleLen;
    EXPECT_TRUE(output->playedSamples().empty());
  }
}

TEST(Playback, ATargetReachedByPrimingEndsAtTheFirstCallback) {
  for (unsigned long sampleLen : {2942ul, 4410ul}) {
    VirtualOutput output;
    LogCapture log;
    EXPECT_EQ(executeFunction(createAcquireProtocol(), 1, sampleLen, nullptr), 0);
    nimbara::platform::waitUntilIdle();
    const auto lines = log.take();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) { return l.rfind("wait...", 0) == 0; }),
              0);
    ASSERT_FALSE(split(lines).audio.empty());
    EXPECT_EQ(split(lines).audio.back(), " -> free(aqc);");
    EXPECT_EQ(output->playedSamples().size(), 735u * 2);  // one buffer heard, two returned
  }
}

TEST(Playback, EveryFailingPlatformCallReturnsItsStatus) {
  struct Case {
    Call call;
    unsigned occurrence;
  };
  const Case cases[] = {{Call::NewOutput, 1},      {Call::AllocateBuffer, 1},
                        {Call::AllocateBuffer, 2}, {Call::AllocateBuffer, 3},
                        {Call::Start, 1},          {Call::Enqueue, 1}};
  for (const Case& c : cases) {
    FaultyOutput output;
    output.faults().failCall(c.call, -1234, c.occurrence);
    LogCapture log;
    std::int32_t status;
    if (c.call == Call::Enqueue) {
      // Two buffers in circulation come back twice only: the context stays.
      NIMBARA_EXPECTED_LEAK;
      status = executeFunction(createAcquireProtocol(), 1, 17640, nullptr);
      nimbara::platform::waitUntilIdle();
    } else {
      status = executeFunction(createAcquireProtocol(), 1, 17640, nullptr);
      nimbara::platform::waitUntilIdle();
    }
    const auto lines = log.take();
    if (c.call == Call::Enqueue) {  // a priming enqueue: the buffer leaves circulation
      EXPECT_EQ(status, 0);
      EXPECT_THAT(lines, ::testing::Contains(" [ERROR] Play AudioQueueEnqueueBuffer err=-1234"));
    } else {
      EXPECT_EQ(status, -1234) << static_cast<int>(c.call) << " " << c.occurrence;
    }
    if (c.call == Call::NewOutput) {
      EXPECT_THAT(lines, ::testing::Contains("#newOutput err=-1234"));
    }
  }
}

TEST(Playback, AnEnqueueFailingMidwayLeavesTwoBuffersToFinish) {
  FaultyOutput output;
  output.faults().failCall(Call::Enqueue, -77, 6);
  LogCapture log;
  std::int32_t status;
  {
    // With a buffer out of circulation only two come back after the end: the
    // context is never released, as the engine's counting has it.
    NIMBARA_EXPECTED_LEAK;
    status = executeFunction(createAcquireProtocol(), 1, 17640, nullptr);
    nimbara::platform::waitUntilIdle();
  }
  EXPECT_EQ(status, 0);
  const auto lines = log.take();
  EXPECT_THAT(lines, ::testing::Contains(" [ERROR] Play AudioQueueEnqueueBuffer err=-77"));
  EXPECT_THAT(lines, ::testing::Contains(" dispose return[1] aqc->disposedCount=2"));
  EXPECT_THAT(lines, ::testing::Not(::testing::Contains(" -> free(aqc);")));
}

TEST(Playback, TwoThreadsPlayAtOnceEachOnItsOwnQueue) {
  VirtualOutput output;
  std::int32_t statuses[2] = {-1, -1};
  std::thread first(
      [&] { statuses[0] = executeFunction(createAcquireProtocol(), 1, 17640, nullptr); });
  std::thread second(
      [&] { statuses[1] = executeFunction(createEchoProtocol(9), 3, 17640, nullptr); });
  first.join();
  second.join();
  nimbara::platform::waitUntilIdle();
  EXPECT_EQ(statuses[0], 0);
  EXPECT_EQ(statuses[1], 0);
  auto acquire = stereo(acquireSignal(8820));
  auto echo = expectedFrameSignal(withParity("11111111" + std::string(28, '0') + "1001"));
  echo.resize(8820, 0);
  auto echoStereo = stereo(echo);
  auto oneOrder = acquire;
  oneOrder.insert(oneOrder.end(), echoStereo.begin(), echoStereo.end());
  auto otherOrder = echoStereo;
  otherOrder.insert(otherOrder.end(), acquire.begin(), acquire.end());
  const auto handed = output->enqueuedSamples();
  EXPECT_TRUE(handed == oneOrder || handed == otherOrder);
}

// A failure after the queue started (a write error, a lost server, a failed
// close) is the caller's status; the log is the same as a good transmission's.
TEST(Playback, AnOutputFailingAfterTheStartIsTheCallersStatus) {
  const auto withoutWaits = [](std::vector<std::string> lines) {
    std::erase_if(lines, [](const std::string& l) {
      return l.rfind("wait...", 0) == 0 || l.rfind("aqc->protocolFrame", 0) == 0;
    });
    return lines;
  };
  initProtocolUnit();
  std::vector<std::string> good;
  {
    FaultyOutput output;
    LogCapture log;
    ASSERT_EQ(executeFunction(createAcquireProtocol(), 1, 17640, nullptr), 0);
    nimbara::platform::waitUntilIdle();
    good = withoutWaits(split(log.take()).caller);
  }
  for (const auto& [call, occurrence] :
       {std::pair{Call::Play, 1u}, std::pair{Call::Play, 9u}, std::pair{Call::Close, 1u}}) {
    FaultyOutput output;
    output.faults().failCall(call, -4321, occurrence);
    LogCapture log;
    EXPECT_EQ(executeFunction(createAcquireProtocol(), 1, 17640, nullptr), -4321)
        << static_cast<int>(call) << " " << occurrence;
    nimbara::platform::waitUntilIdle();
    EXPECT_EQ(withoutWaits(split(log.take()).caller), good);
  }
}

// A WAV file takes sound as fast as the disk allows: the caller never polls
// more often than on a real-time output (it may find a transmission already
// written and not poll at all), and a failing file is a status.
TEST(Playback, AWavOutputPollsNoMoreThanARealOneAndReportsAFailingDisk) {
  const std::string path = ::testing::TempDir() + "nimbara-poll.wav";
  auto wav = std::make_shared<nimbara::platform::WavDevice>(path);
  nimbara::platform::setBackend(wav);
  LogCapture log;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), 0);
  nimbara::platform::waitUntilIdle();
  const auto lines = log.take();
  const auto polls = std::count_if(lines.begin(), lines.end(),
                                   [](const std::string& l) { return l.rfind("wait...", 0) == 0; });
  EXPECT_LE(polls, 3 * 6);
  // Each transmission's last two buffers are disposed of unheard.
  EXPECT_EQ(wav->frames(), 3u * (17640u - 2 * 735u));
  EXPECT_EQ(wav->status(), 0);
  std::remove(path.c_str());

  wav = std::make_shared<nimbara::platform::WavDevice>("/dev/full");
  nimbara::platform::setBackend(wav);
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_IO);
  nimbara::platform::waitUntilIdle();
  wav = std::make_shared<nimbara::platform::WavDevice>(::testing::TempDir() + "none/x.wav");
  nimbara::platform::setBackend(wav);
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), NIMBARA_AUDIO_ERR_IO);
  nimbara::platform::waitUntilIdle();
  nimbara::platform::setBackend(nullptr);
}

}  // namespace
