// Building and releasing each command's frame.
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>

#include <benchmark/benchmark.h>

namespace {

template <typename Build>
void buildAndFree(benchmark::State& state, Build build) {
  nimbara::setLogSink({});
  for (auto _ : state) {
    FrameNode* frame = build();
    benchmark::DoNotOptimize(frame);
    freeProtocolFrame(frame);
  }
}

void BM_Acquire(benchmark::State& s) {
  buildAndFree(s, [] { return createAcquireProtocol(); });
}
void BM_GetTankId(benchmark::State& s) {
  buildAndFree(s, [] { return createGetTankIdProtocol(); });
}
void BM_LightLed(benchmark::State& s) {
  buildAndFree(s, [] { return createLightLedProtocol(255, 128, 0, 1, 500); });
}
void BM_SprayWithLightLed(benchmark::State& s) {
  buildAndFree(s, [] { return createSprayWithLightLedProtocol(255, 128, 0, 1, 500); });
}
void BM_SprayWithLightLedGetTankId(benchmark::State& s) {
  buildAndFree(s, [] { return createSprayWithLightLedGetTankIdProtocol(255, 128, 0, 1, 500); });
}
void BM_Spray(benchmark::State& s) {
  buildAndFree(s, [] { return createSprayProtocol(500); });
}
void BM_Echo(benchmark::State& s) {
  buildAndFree(s, [] { return createEchoProtocol(12345); });
}

BENCHMARK(BM_Acquire);
BENCHMARK(BM_GetTankId);
BENCHMARK(BM_LightLed);
BENCHMARK(BM_SprayWithLightLed);
BENCHMARK(BM_SprayWithLightLedGetTankId);
BENCHMARK(BM_Spray);
BENCHMARK(BM_Echo);

}  // namespace
