// The audio path per 735-frame buffer, allocations per transmission, and a
// facade call against its minimum duration.
#include <nimbara/nimbara.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>

#include "alloc_counter.h"

namespace {

using Clock = std::chrono::steady_clock;

std::shared_ptr<nimbara::platform::VirtualDevice> fastDevice() {
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0;
  options.record = false;
  return std::make_shared<nimbara::platform::VirtualDevice>(options);
}

// Ten seconds of sound rendered and handed over as fast as the output takes
// it: the time per buffer bounds the callback's cost from above.
void callbackCost(benchmark::State& state, bool logging) {
  if (logging) {
    nimbara::setLogSink([](std::string_view) {});
  } else {
    nimbara::setLogSink({});
  }
  nimbara::platform::setBackend(fastDevice());
  constexpr unsigned long kSampleLen = 882000;  // 10 s
  constexpr double kBuffers = 441000.0 / 735;
  for (auto _ : state) {
    executeFunction(createSprayWithLightLedProtocol(255, 128, 0, 1, 500), 1, kSampleLen, nullptr);
    nimbara::platform::waitUntilIdle();
  }
  nimbara::flushLog();
  nimbara::setLogSink({});
  state.counters["seconds_per_buffer"] = benchmark::Counter(
      kBuffers, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["dropped_log_lines"] = static_cast<double>(nimbara::droppedLogLines());
  nimbara::platform::setBackend(nullptr);
}

void BM_CallbackLoggingOff(benchmark::State& state) {
  callbackCost(state, false);
}
void BM_CallbackLoggingOn(benchmark::State& state) {
  callbackCost(state, true);
}

// What a frame needs from the allocator, alone: 11 nodes, two unit records
// and their element blocks.
void BM_BareFrameAllocations(benchmark::State& state) {
  void* blocks[15];
  for (auto _ : state) {
    for (int i = 0; i < 11; ++i) blocks[i] = std::calloc(1, sizeof(FrameNode));
    blocks[11] = std::calloc(1, sizeof(ProtocolUnit));
    blocks[12] = std::calloc(8, 1);
    blocks[13] = std::calloc(1, sizeof(ProtocolUnit));
    blocks[14] = std::calloc(48, 1);
    benchmark::DoNotOptimize(blocks);
    for (void* block : blocks) std::free(block);
  }
}

// Heap traffic of one transmission, and of its callbacks alone.
void BM_AllocationsPerTransmission(benchmark::State& state) {
  nimbara::setLogSink({});
  nimbara::platform::setBackend(fastDevice());
  bench::AllocationCount before{}, after{};
  bench::countAllocations(true);
  for (auto _ : state) {
    before = bench::allocationsSoFar();
    executeFunction(createSprayWithLightLedProtocol(255, 128, 0, 1, 500), 1, 35280, nullptr);
    nimbara::platform::waitUntilIdle();
    after = bench::allocationsSoFar();
  }
  bench::countAllocations(false);
  state.counters["allocations"] = static_cast<double>(after.allocations - before.allocations);
  state.counters["bytes"] = static_cast<double>(after.bytes - before.bytes);
  nimbara::platform::setBackend(nullptr);
}

// A puff through the facade on the virtual device in real time: two 0.05 s
// pauses and 0.4 s of sound at the least.
void BM_FacadePuff(benchmark::State& state) {
  nimbara::setLogSink({});
  nimbara::platform::setBackend(std::make_shared<nimbara::platform::VirtualDevice>());
  nimbara::setRunLoopPause({});
  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();
  double seconds = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    sdk.puffAndFlashLedWithRed(255, 64, 0, 0, 500);
    const auto end = Clock::now();
    seconds += std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    nimbara::platform::waitUntilIdle();
  }
  state.counters["call_ms"] = seconds / state.iterations() * 1000;
  state.counters["minimum_ms"] = 500;
  nimbara::platform::setBackend(nullptr);
}

BENCHMARK(BM_CallbackLoggingOff)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CallbackLoggingOn)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareFrameAllocations);
BENCHMARK(BM_AllocationsPerTransmission)->Iterations(20);
BENCHMARK(BM_FacadePuff)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
