// One second of a spray frame rendered buffer by buffer, next to memset of
// the same bytes: the physical limit of writing that much audio.
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/signal/playback.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "signal/playback_internal.h"

namespace {

constexpr std::uint32_t kFramesPerSecond = 44100;
constexpr std::uint32_t kBuffersPerSecond = kFramesPerSecond / NIMBARA_FRAMES_PER_BUFFER;

void BM_RenderOneSecond(benchmark::State& state) {
  nimbara::setLogSink({});
  std::vector<std::int16_t> buffer(NIMBARA_FRAMES_PER_BUFFER * 2);
  FrameNode* frame = createSprayWithLightLedProtocol(255, 128, 0, 1, 500);
  PlaybackContext context{};
  context.framesPerBuffer = NIMBARA_FRAMES_PER_BUFFER;
  for (auto _ : state) {
    // A rendered frame leaves every cursor at 0: it can be played again.
    context.protocolFrame = frame;
    for (std::uint32_t i = 0; i < kBuffersPerSecond; ++i) {
      nimbara::detail::renderBuffer(&context, buffer.data(), NIMBARA_FRAMES_PER_BUFFER);
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
    }
  }
  freeProtocolFrame(frame);
  state.SetBytesProcessed(state.iterations() * kFramesPerSecond * 4);
}

void BM_MemsetOneSecond(benchmark::State& state) {
  std::vector<std::int16_t> buffer(NIMBARA_FRAMES_PER_BUFFER * 2);
  for (auto _ : state) {
    for (std::uint32_t i = 0; i < kBuffersPerSecond; ++i) {
      std::memset(buffer.data(), static_cast<int>(i), buffer.size() * 2);
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(state.iterations() * kFramesPerSecond * 4);
}

BENCHMARK(BM_RenderOneSecond);
BENCHMARK(BM_MemsetOneSecond);

}  // namespace
