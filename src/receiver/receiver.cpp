// The receiver works in three steps. Sample by sample it removes any DC
// offset, smooths the signal over half a short half-period (which keeps the
// edges and lowers broadband noise), and follows its envelope against the
// noise floor to cut the stream into bursts. Each finished burst is decoded
// on its own: zero crossings with hysteresis give half-periods, the longest
// run of plausible ones is the payload, and pairs of halves are bits (a short
// period is a 0, a long one a 1). Two payload bursts one silence apart make a
// transmission.
#include <nimbara/receiver/receiver.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "receiver/bursts.h"

namespace nimbara {

struct Receiver::State {
  State(double rate, int channelCount) : channels(channelCount), bursts(rate) {}

  // Mono samples, a block at a time.
  void pushMono(const float* samples, std::size_t count) {
    bursts.push(samples, count, ended);
    for (const receiver::Burst& burst : ended) onBurst(burst);
    ended.clear();
  }

  // Interleaved frames of any sample type, mixed to mono in blocks.
  template <typename Sample>
  void pushFrames(const Sample* samples, std::size_t frames, float scale) {
    float mono[512];
    const float gain = scale / channels;
    while (frames > 0) {
      const std::size_t n = std::min<std::size_t>(frames, 512);
      for (std::size_t f = 0; f < n; ++f) {
        float sum = 0;
        for (int c = 0; c < channels; ++c) sum += samples[f * channels + c];
        mono[f] = sum * gain;
      }
      pushMono(mono, n);
      samples += n * channels;
      frames -= n;
    }
    checkTimeout();
  }

  void onBurst(const receiver::Burst& burst) {
    if (!burst.payload) return;  // a wake-up level or noise
    if (pending && receiver::followsAfterSilence(*pending, burst)) {
      emit(receiver::assemble(*pending, &burst));
      pending.reset();
      return;
    }
    flushPending();
    pending = burst;
  }

  // A first repetition that no second one followed in time.
  void flushPending() {
    if (!pending) return;
    emit(receiver::assemble(*pending, nullptr));
    pending.reset();
  }

  void checkTimeout() {
    if (pending && bursts.samplesSince(pending->endSample) > bursts.secondRepetitionWindow()) {
      flushPending();
    }
  }

  void emit(Transmission transmission) {
    if (callback) callback(transmission);
    decoded.push_back(std::move(transmission));
  }

  const int channels;
  receiver::BurstDetector bursts;
  std::optional<receiver::Burst> pending;
  std::vector<receiver::Burst> ended;
  std::vector<Transmission> decoded;
  std::function<void(const Transmission&)> callback;
};

Receiver::Receiver(double sampleRate, int channels) {
  if (!(sampleRate >= 8000 && sampleRate <= 192000)) {
    throw std::invalid_argument("sample rate must be from 8000 to 192000 Hz");
  }
  if (channels < 1) throw std::invalid_argument("at least one channel is needed");
  state_ = std::make_unique<State>(sampleRate, channels);
}

Receiver::~Receiver() = default;

void Receiver::push(const std::int16_t* samples, std::size_t frames) {
  state_->pushFrames(samples, frames, 1.0f / 32768.0f);
}

void Receiver::push(const float* samples, std::size_t frames) {
  state_->pushFrames(samples, frames, 1.0f);
}

void Receiver::finish() {
  if (auto burst = state_->bursts.finish()) state_->onBurst(*burst);
  state_->flushPending();
}

std::vector<Transmission> Receiver::take() {
  return std::exchange(state_->decoded, {});
}

void Receiver::onTransmission(std::function<void(const Transmission&)> callback) {
  state_->callback = std::move(callback);
}

std::vector<Transmission> decodeAudio(const WavAudio& audio) {
  Receiver receiver(audio.sampleRate, audio.channels);
  receiver.push(audio.samples.data(), audio.samples.size() / audio.channels);
  receiver.finish();
  return receiver.take();
}

}  // namespace nimbara
