#include <nimbara/frame/commands.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/renderer.h>
#include <nimbara/signal/signal_units.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "signal/fixed_units.h"
#include "support/expected_signal.h"
#include "support/log_capture.h"
#include "support/virtual_output.h"

namespace {

using nimbara::test::expectedFrameSignal;
using nimbara::test::LogCapture;
using nimbara::test::stereo;
using nimbara::test::VirtualOutput;
using nimbara::test::withParity;

// Renders `frame` through the output callback into `buffers` buffers of
// `framesPerBuffer` frames on a queue that is never started, and returns what
// was enqueued, as the virtual device recorded it.
struct Rendering {
  std::vector<std::int16_t> samples;
  std::uint32_t playedFrames = 0;
  std::vector<FrameNode> cursorsAfterFirstBuffer;
};

Rendering render(FrameNode* frame, std::uint32_t framesPerBuffer, int buffers) {
  VirtualOutput output;
  PlaybackContext context{};
  context.framesPerBuffer = framesPerBuffer;
  context.targetFrames = 0xFFFFFFFF;
  context.protocolFrame = frame;
  context.frameHead = frame;
  NimbaraStreamFormat format{44100.0, NIMBARA_FORMAT_LINEAR_PCM, 12, 4, 1, 4, 2, 16, 0};
  NimbaraAudioQueueRef queue = nullptr;
  EXPECT_EQ(nimbaraAudioQueueNewOutput(&format, AQOutputCallback, &context, 0, &queue), 0);
  Rendering result;
  for (int i = 0; i < buffers; ++i) {
    NimbaraAudioBufferRef buffer = nullptr;
    EXPECT_EQ(nimbaraAudioQueueAllocateBuffer(queue, framesPerBuffer * 4, &buffer), 0);
    if (buffer == nullptr) break;
    AQOutputCallback(&context, queue, buffer);
    EXPECT_EQ(buffer->audioDataByteSize, framesPerBuffer * 4);
    if (i == 0) {
      for (FrameNode* node = frame; node != nullptr; node = node->next) {
        result.cursorsAfterFirstBuffer.push_back(*node);
      }
    }
  }
  nimbaraAudioQueueRelease(queue);
  result.samples = output->enqueuedSamples();
  result.playedFrames = context.playedFrames;
  return result;
}

std::vector<std::int16_t> padded(std::vector<std::int16_t> mono, std::size_t frames) {
  mono.resize(frames, 0);
  return stereo(mono);
}

TEST(Renderer, AFrameSoundsAsItsBitsWhateverTheBufferSize) {
  const std::string payload = withParity(
      "00000101"
      "11111111"
      "00000000"
      "10000000"
      "00000001"
      "0000000111110100");
  const auto signal = expectedFrameSignal(payload);
  for (std::uint32_t framesPerBuffer : {512u, 735u, 1000u, 4096u}) {
    const int buffers = static_cast<int>(signal.size() / framesPerBuffer) + 2;
    FrameNode* frame = createSprayWithLightLedGetTankIdProtocol(255, 0, 128, 1, 500);
    Rendering r = render(frame, framesPerBuffer, buffers);
    EXPECT_EQ(r.samples, padded(signal, framesPerBuffer * buffers)) << framesPerBuffer;
    EXPECT_EQ(r.playedFrames, framesPerBuffer * buffers);
    freeProtocolFrame(frame);
  }
}

TEST(Renderer, FrameLengthFollowsItsBits) {
  // 220 of wake-up, then twice: 441 of silence, 20 per 0-bit and 40 per 1-bit
  // of command, parameter and parity, 5 of stop bits.
  const auto expectedLength = [](const std::string& payload) {
    const auto ones = static_cast<std::size_t>(std::count(payload.begin(), payload.end(), '1'));
    return 220 + 2 * (441 + 5 + 20 * (payload.size() - ones) + 40 * ones);
  };
  const std::vector<std::pair<FrameNode*, std::string>> frames = {
      {createAcquireProtocol(), withParity("0000000100000000")},
      {createEchoProtocol(0xF0F0F0F0),
       withParity("11111111" + std::string("11110000") + "11110000" + "11110000" + "11110000")},
      {createSprayProtocol(-1), withParity("00000010" + std::string(16, '1'))},
  };
  for (const auto& [frame, payload] : frames) {
    const auto samples = render(frame, 735, 12).samples;
    freeProtocolFrame(frame);
    std::size_t last = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
      if (samples[i] != 0) last = i / 2;
    }
    EXPECT_EQ(last + 1, expectedLength(payload)) << payload;
  }
  EXPECT_EQ(expectedLength(withParity("0000000100000000")), 1872u);
}

// A unit with a length of 0 still plays one frame: its first element.
TEST(Renderer, AnEmptyUnitPlaysItsFirstElement) {
  initProtocolUnit();
  for (const auto& [kind, element, sample] :
       {std::tuple{1u, 2, 2}, std::tuple{1u, 1, 32767}, std::tuple{0u, 0, 32767}}) {
    ProtocolUnit* empty = static_cast<ProtocolUnit*>(std::calloc(1, sizeof(ProtocolUnit)));
    empty->data = static_cast<std::uint8_t*>(std::calloc(1, 1));
    empty->data[0] = static_cast<std::uint8_t>(element);
    empty->kind = kind;
    empty->length = 0;
    FrameNode node{empty, 0, 0, 1, nullptr};
    const auto samples = render(&node, 4, 1).samples;
    EXPECT_EQ(samples,
              (std::vector<std::int16_t>{static_cast<std::int16_t>(sample),
                                         static_cast<std::int16_t>(sample), 0, 0, 0, 0, 0, 0}))
        << kind << " " << element;
    std::free(empty->data);
    std::free(empty);
  }
}

TEST(Renderer, ABitCutByTheBufferEndContinuesInTheNextBuffer) {
  initProtocolUnit();
  FrameNode* frame = createAcquireProtocol();
  // 220 wake-up + 441 silence + 10 of the first command bit's 20 samples.
  Rendering r = render(frame, 671, 3);
  const FrameNode& command = r.cursorsAfterFirstBuffer[2];
  EXPECT_EQ(command.bitIndex, 0u);
  EXPECT_EQ(command.sampleIndex, 10u);
  EXPECT_EQ(r.cursorsAfterFirstBuffer[0].bitIndex, 0u);  // left nodes are reset
  EXPECT_EQ(r.samples, padded(expectedFrameSignal(withParity("0000000100000000")), 671 * 3));
  freeProtocolFrame(frame);
}

TEST(Renderer, SampleUnitsAndBitUnitsMapElementsToSound) {
  initProtocolUnit();
  std::uint8_t sampleElements[] = {1, 2, 0, 255};
  ProtocolUnit samples{sampleElements, 4, NIMBARA_SAMPLE_UNIT, "SMP", 1};
  std::uint8_t bitElements[] = {0, 1};
  ProtocolUnit bits{bitElements, 2, 0, "BIT", 1};
  FrameNode second{&bits, 0, 0, 0, nullptr};
  FrameNode first{&samples, 0, 0, 0, &second};
  Rendering r = render(&first, 735, 1);
  std::vector<std::int16_t> mono = {32767, 2, 0, 255};
  for (int half : {10, 20}) {
    mono.insert(mono.end(), half, 32767);
    mono.insert(mono.end(), half, -32768);
  }
  EXPECT_EQ(r.samples, padded(mono, 735));
}

TEST(Renderer, EveryCallLogsItsEntryAndAFailedEnqueueIsReported) {
  VirtualOutput output;
  initProtocolUnit();
  FrameNode* frame = createAcquireProtocol();
  PlaybackContext context{};
  context.framesPerBuffer = 735;
  context.targetFrames = 2000;
  context.protocolFrame = frame;
  context.frameHead = frame;
  NimbaraStreamFormat format{44100.0, NIMBARA_FORMAT_LINEAR_PCM, 12, 4, 1, 4, 2, 16, 0};
  NimbaraAudioQueueRef queue = nullptr;
  ASSERT_EQ(nimbaraAudioQueueNewOutput(&format, AQOutputCallback, &context, 0, &queue), 0);
  NimbaraAudioBufferRef buffer = nullptr;
  ASSERT_EQ(nimbaraAudioQueueAllocateBuffer(queue, 2940, &buffer), 0);
  LogCapture log;
  AQOutputCallback(&context, queue, buffer);
  AQOutputCallback(&context, queue, buffer);  // still enqueued: refused
  context.framesPerBuffer = 0;
  AQOutputCallback(&context, queue, buffer);
  EXPECT_THAT(log.take(), ::testing::ElementsAre(
                              "AQOutputCallback 0 / 2000, data=0, disposedCount=0",
                              "AQOutputCallback 735 / 2000, data=32767, disposedCount=0",
                              " [ERROR] Play AudioQueueEnqueueBuffer err=-6", " dispose return[2]",
                              "AQOutputCallback 1470 / 2000, data=-32768, disposedCount=0",
                              " dispose return[3]"));
  nimbaraAudioQueueRelease(queue);
  freeProtocolFrame(frame);
}

}  // namespace
