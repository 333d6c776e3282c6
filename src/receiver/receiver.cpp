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

  void pushMono(float sample) {
    if (auto burst = bursts.push(sample)) onBurst(*burst);
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
  const int channels = state_->channels;
  for (std::size_t f = 0; f < frames; ++f) {
    float sum = 0;
    for (int c = 0; c < channels; ++c) sum += samples[f * channels + c];
    state_->pushMono(sum / (32768.0f * channels));
  }
  state_->checkTimeout();
}

void Receiver::push(const float* samples, std::size_t frames) {
  const int channels = state_->channels;
  for (std::size_t f = 0; f < frames; ++f) {
    float sum = 0;
    for (int c = 0; c < channels; ++c) sum += samples[f * channels + c];
    state_->pushMono(sum / channels);
  }
  state_->checkTimeout();
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
