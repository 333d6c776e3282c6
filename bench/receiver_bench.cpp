// The receiver's speed: seconds of audio decoded per second of one core, on
// a clean signal and through noise at 12 dB.
#include <nimbara/device/operations.h>
#include <nimbara/log.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/receiver/receiver.h>

#include <benchmark/benchmark.h>

#include <random>

namespace {

// A minute of audio: a spray every two seconds, each after silence.
std::vector<std::int16_t> minuteOfSprays(double snrDecibels) {
  nimbara::setLogSink({});
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0;
  auto device = std::make_shared<nimbara::platform::VirtualDevice>(options);
  nimbara::platform::setBackend(device);
  doSprayWithLightLed(255, 128, 0, 1, 500);
  nimbara::platform::waitUntilIdle();
  nimbara::platform::setBackend(nullptr);
  const auto one = device->enqueuedSamples();
  std::vector<std::int16_t> audio;
  while (audio.size() < 44100u * 2 * 60) {
    audio.insert(audio.end(), one.begin(), one.end());
    audio.insert(audio.end(), 44100u * 2 * 2 - one.size(), 0);
  }
  std::mt19937 random(1);
  std::normal_distribution<double> noise(0, 32767 * std::pow(10, -snrDecibels / 20));
  for (auto& s : audio) {
    if (snrDecibels < 100)
      s = static_cast<std::int16_t>(std::clamp(s + noise(random), -32768.0, 32767.0));
  }
  return audio;
}

void decode(benchmark::State& state, double snr) {
  const auto audio = minuteOfSprays(snr);
  std::size_t decoded = 0;
  for (auto _ : state) {
    nimbara::Receiver receiver(44100, 2);
    receiver.push(audio.data(), audio.size() / 2);
    receiver.finish();
    decoded = receiver.take().size();
  }
  state.counters["transmissions"] = static_cast<double>(decoded);
  state.counters["x_real_time"] =
      benchmark::Counter(60.0 * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_ReceiverClean(benchmark::State& state) {
  decode(state, 1000);
}
void BM_ReceiverNoise12dB(benchmark::State& state) {
  decode(state, 12);
}

BENCHMARK(BM_ReceiverClean)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReceiverNoise12dB)->Unit(benchmark::kMillisecond);

}  // namespace
