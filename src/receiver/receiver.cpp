// The receiver works in three steps. On every sample, only a cheap energy
// measure runs (ActivityGate) while the samples go into a bounded ring. When a
// stretch of activity ends, that stretch alone is band-passed, its channels
// are combined without letting opposite polarities cancel, and each payload
// in it is decoded (PayloadDecoder). Payloads one silence apart with the same
// bits make a transmission; weaker copies that follow closely are echoes.
#include <nimbara/receiver/receiver.h>

#include <nimbara/api/command.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "receiver/activity.h"
#include "receiver/band_pass.h"
#include "receiver/equaliser.h"
#include "receiver/frame_geometry.h"
#include "receiver/payload_decoder.h"
#include "receiver/repetition_sum.h"
#include "receiver/transmission.h"

namespace nimbara {
namespace {

// In samples at 44100 Hz: every bit a 0-bit (20 samples) with slack, or every
// bit a 1-bit (40 samples).
constexpr double kShortestPayload = receiver::kPayloadLengths[0] * 20 * 0.8;
constexpr double kLongestPayloadSamples = receiver::kLongestPayload * 40;
constexpr double kEchoHoldOffSeconds = 0.15;
// Of a transmission's length, the share within which nothing new begins
// (slack for a sender running fast).
constexpr double kHoldOff = 0.9;
// A copy of the last transmission this much weaker, up to this long after
// it, is its echo.
constexpr double kEchoAmplitude = 0.7;
constexpr double kLongEchoSeconds = 1.0;
// An unpaired repetition is reported (as damaged) only if it looks like a
// payload at all: noise, speech and music rarely reach this margin and stand
// this far above the quiet before them.
constexpr double kReportableMargin = 0.1;
constexpr double kReportableSnrDb = 3;
constexpr double kBeforeRun = 0.006, kAfterRun = 0.002;  // seconds of context
// Samples kept around a payload, at 44100 Hz.
constexpr double kWaveMargin = 60;
// The equaliser's reach, in samples at 44100 Hz: a little ahead, and back
// over reflections up to about 1.3 ms.
constexpr double kEqualiserAhead = 8, kEqualiserBack = 56;
// Seconds the band-pass needs to settle before a partner's window.
constexpr double kFilterSettle = 0.002;

}  // namespace

struct Receiver::State {
  State(double rate, int channelCount)
      : rate(rate),
        scale(rate / receiver::kReferenceRate),
        channels(channelCount),
        gate(rate, channelCount),
        bandPass(rate),
        decoder(rate),
        block(gate.blockLength()),
        capacity(block * ((gate.longestRun() + static_cast<std::size_t>(0.05 * rate)) / block + 2)),
        ring(channelCount, std::vector<float>(capacity, 0.0f)),
        pointers(channelCount) {}

  template <typename Sample>
  void pushFrames(const Sample* samples, std::size_t frames, float gain) {
    while (frames > 0) {
      const std::size_t n = std::min(frames, block - fill);
      const std::size_t at = written % capacity;
      if (channels == 2) {
        float* left = ring[0].data() + at;
        float* right = ring[1].data() + at;
        std::size_t f = 0;
        if constexpr (std::is_same_v<Sample, float>) {
          // Four frames at a time: the left and right samples of two vectors
          // taken apart.
          using Four = float __attribute__((vector_size(4 * sizeof(float))));
          for (; f + 4 <= n; f += 4) {
            Four a, b;
            std::memcpy(&a, samples + 2 * f, sizeof a);
            std::memcpy(&b, samples + 2 * f + 4, sizeof b);
            const Four l = __builtin_shufflevector(a, b, 0, 2, 4, 6) * gain;
            const Four r = __builtin_shufflevector(a, b, 1, 3, 5, 7) * gain;
            std::memcpy(left + f, &l, sizeof l);
            std::memcpy(right + f, &r, sizeof r);
          }
        }
        for (; f < n; ++f) {
          left[f] = static_cast<float>(samples[2 * f]) * gain;
          right[f] = static_cast<float>(samples[2 * f + 1]) * gain;
        }
      } else {
        for (int c = 0; c < channels; ++c) {
          float* out = ring[c].data() + at;
          for (std::size_t f = 0; f < n; ++f) {
            out[f] = static_cast<float>(samples[f * channels + c]) * gain;
          }
        }
      }
      written += n;
      fill += n;
      samples += n * channels;
      frames -= n;
      if (fill == block) gateBlock();
    }
    expirePayloads(false);
  }

  // Blocks never straddle the ring's end: its capacity is a whole number of them.
  void gateBlock() {
    const std::size_t at = (written - fill) % capacity;
    for (int c = 0; c < channels; ++c) pointers[c] = ring[c].data() + at;
    receiver::ActivityRun run;
    const std::size_t count = fill;
    fill = 0;
    if (gate.pushBlock(pointers.data(), count, &run)) onRun(run);
  }

  void finish() {
    if (fill > 0) gateBlock();
    receiver::ActivityRun run;
    if (gate.finish(&run)) onRun(run);
    expirePayloads(true);
  }

  // The band-passed channels of [from, to), combined: the strongest one, plus
  // every other of comparable strength with the sign that adds rather than
  // cancels.
  std::vector<float> combinedBand(std::uint64_t from, std::uint64_t to) {
    const std::size_t length = to - from;
    std::vector<std::vector<float>> band(channels);
    std::vector<double> energy(channels, 0.0);
    std::vector<bool> repeats(channels, false);
    // The ring's part up to its end, then the part from its start.
    const std::size_t at = from % capacity, first = std::min(length, capacity - at);
    const auto same = [&](int c) {
      return std::equal(ring[c].begin() + at, ring[c].begin() + at + first, ring[0].begin() + at) &&
             std::equal(ring[c].begin(), ring[c].begin() + (length - first), ring[0].begin());
    };
    for (int c = 0; c < channels; ++c) {
      // A channel that repeats the first (as the accessory's output does)
      // adds nothing: it is left out, with no energy, and not copied.
      repeats[c] = c > 0 && same(c);
      if (repeats[c]) continue;
      band[c].resize(length);
      std::copy_n(ring[c].begin() + at, first, band[c].begin());
      std::copy_n(ring[c].begin(), length - first, band[c].begin() + first);
    }
    for (int c = 0; c < channels; ++c) {
      if (repeats[c]) continue;
      bandPass.apply(band[c]);
      for (float x : band[c]) energy[c] += static_cast<double>(x) * x;
    }
    const int strongest =
        static_cast<int>(std::max_element(energy.begin(), energy.end()) - energy.begin());
    std::vector<float> sum = std::move(band[strongest]);
    for (int c = 0; c < channels; ++c) {
      if (c == strongest || repeats[c] || energy[c] < 0.25 * energy[strongest]) continue;
      double dot = 0;
      for (std::size_t i = 0; i < length; ++i) dot += static_cast<double>(band[c][i]) * sum[i];
      const float sign = dot >= 0 ? 1.0f : -1.0f;
      for (std::size_t i = 0; i < length; ++i) sum[i] += sign * band[c][i];
    }
    return sum;
  }

  void onRun(const receiver::ActivityRun& run) {
    const double shortest = kShortestPayload * scale;
    if (static_cast<double>(run.end - run.start) < shortest) return;  // a wake-up level, a click
    const std::uint64_t oldest = written > capacity ? written - capacity : 0;
    const std::uint64_t from = std::max<std::uint64_t>(
        oldest, run.start - std::min<std::uint64_t>(run.start, std::llround(kBeforeRun * rate)));
    const std::uint64_t to =
        std::min<std::uint64_t>(written, run.end + std::llround(kAfterRun * rate));
    const std::vector<float> signal = combinedBand(from, to);

    // Split the run at deep dips: under reverberation the silence between the
    // repetitions no longer ends a run.
    std::vector<float> sorted = run.blockEnergy;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() * 9 / 10, sorted.end());
    const float typical = sorted[sorted.size() * 9 / 10];
    const auto blockStart = [&](std::size_t j) { return run.start + j * block; };
    std::size_t j = 0;
    const std::size_t blocks = run.blockEnergy.size();
    while (j < blocks) {
      while (j < blocks && run.blockEnergy[j] < 0.15f * typical) ++j;
      if (j == blocks) break;
      const std::size_t first = j;
      std::size_t last = j;
      while (j < blocks && (run.blockEnergy[j] >= 0.15f * typical ||
                            (j + 1 < blocks && run.blockEnergy[j + 1] >= 0.15f * typical))) {
        if (run.blockEnergy[j] >= 0.15f * typical) last = j;
        ++j;
      }
      const double segmentEnd = static_cast<double>(std::min(run.end, blockStart(last + 1)));
      decodeSegment(signal, from, static_cast<double>(blockStart(first)), segmentEnd, run, typical);
    }
  }

  // Decodes payload after payload in one segment of a run.
  void decodeSegment(const std::vector<float>& signal, std::uint64_t origin, double onset,
                     double end, const receiver::ActivityRun& run, float typical) {
    const double shortest = kShortestPayload * scale;
    while (end - onset >= shortest) {
      const auto a = static_cast<std::size_t>(onset - static_cast<double>(origin));
      const auto b =
          std::min(signal.size(), static_cast<std::size_t>(end - static_cast<double>(origin)));
      if (b <= a) return;
      double level = 0;
      for (std::size_t i = a; i < b; ++i) level += std::fabs(signal[i]);
      level /= static_cast<double>(b - a);
      auto payload = decoder.decode(signal, origin, onset, end, level);
      if (!payload) return;
      const std::vector<float>* read = &signal;
      if (!payload->command || payload->confidence < receiver::kConfidentMargin) {
        auto better = equalised(signal, origin, onset, end, a, b, *payload);
        if (better && better->command && better->confidence > payload->confidence) {
          // The equaliser restores the level too: the strength (which tells
          // an echo from its transmission) is what was received.
          better->amplitude = payload->amplitude;
          payload = std::move(better);
          read = &equalisedSignal;
        }
      }
      const double payloadEnd = payload->end;
      keepWave(*payload, *read, origin);
      onPayload(std::move(*payload));
      // Whatever follows within the segment: the next activity after a pause.
      const double from = payloadEnd + 300 * scale;
      double next = -1;
      for (std::size_t k = 0; k < run.blockEnergy.size(); ++k) {
        const double start = static_cast<double>(run.start + k * block);
        if (start >= from && start < end && run.blockEnergy[k] >= 0.3f * typical) {
          next = start;
          break;
        }
      }
      if (next < 0) return;
      onset = next;
    }
  }

  // The payload read again through the filter that turns the stretch into
  // what the first reading says was sent.
  std::optional<receiver::Payload> equalised(const std::vector<float>& signal, std::uint64_t origin,
                                             double onset, double end, std::size_t a, std::size_t b,
                                             const receiver::Payload& first) {
    const double margin = kWaveMargin * scale;
    const auto from =
        static_cast<std::size_t>(std::clamp(first.start - margin - static_cast<double>(origin), 0.0,
                                            static_cast<double>(signal.size())));
    const auto to = static_cast<std::size_t>(
        std::clamp(first.end + margin - static_cast<double>(origin), static_cast<double>(from),
                   static_cast<double>(signal.size())));
    // The clean signal the reading stands for, band-limited as the received one.
    std::vector<float> wanted =
        receiver::cleanSignal(first.bits, first.polarity,
                              first.start - static_cast<double>(origin + from), to - from, scale);
    bandPass.apply(wanted);
    receiver::Equaliser equaliser(static_cast<int>(std::lround(kEqualiserAhead * scale)),
                                  static_cast<int>(std::lround(kEqualiserBack * scale)));
    if (!equaliser.learn(signal.data() + from, wanted.data(), wanted.size())) return std::nullopt;
    equalisedSignal = signal;
    equaliser.apply(equalisedSignal);
    double level = 0;
    for (std::size_t i = a; i < b; ++i) level += std::fabs(equalisedSignal[i]);
    level /= static_cast<double>(b - a);
    return decoder.decode(equalisedSignal, origin, onset, end, level);
  }

  void keepWave(receiver::Payload& payload, const std::vector<float>& signal,
                std::uint64_t origin) const {
    const double margin = kWaveMargin * scale;
    const auto from =
        static_cast<std::size_t>(std::clamp(payload.start - margin - static_cast<double>(origin),
                                            0.0, static_cast<double>(signal.size())));
    // As far as the longest payload would reach: a reading that ended early
    // may have missed its last bits, which the other repetition can supply.
    const double reach =
        std::max(payload.end, payload.start + kLongestPayloadSamples * scale) + margin;
    const auto to = static_cast<std::size_t>(std::clamp(reach - static_cast<double>(origin),
                                                        static_cast<double>(from),
                                                        static_cast<double>(signal.size())));
    payload.wave.assign(signal.begin() + from, signal.begin() + to);
    payload.waveStart = origin + from;
  }

  // The readings of two repetitions to report: the pair
  // that agrees with good parity if there is one, else the best fitting.
  // Either repetition may be read with the other polarity, but the pair must
  // keep the frame's geometry: the second begins one stop level and one
  // silence after the first ends. A reading that starts some bits late and
  // ends some bits early can fit another command's layout, in both
  // repetitions alike; it cannot keep that distance.
  std::pair<const receiver::Payload*, const receiver::Payload*> choose(
      const receiver::Payload& first, const receiver::Payload& second) const {
    const receiver::Payload* firsts[] = {&first, first.inverted.get()};
    const receiver::Payload* seconds[] = {&second, second.inverted.get()};
    std::pair<const receiver::Payload*, const receiver::Payload*> best{&first, &second};
    double bestRank = -1e300;
    for (const receiver::Payload* a : firsts) {
      for (const receiver::Payload* b : seconds) {
        if (a == nullptr || b == nullptr) continue;
        if (!receiver::followsAfterSilence(*a, *b, rate)) continue;
        const bool agree = a->bits == b->bits && receiver::evenParity(a->bits);
        const double rank = (agree ? 1e200 : 0) + a->fit + b->fit;
        if (rank > bestRank) bestRank = rank, best = {a, b};
      }
    }
    return best;
  }

  static void discount(receiver::Payload& reading, const receiver::Payload& best) {
    if (reading.cleanBit <= 0 || !best.command) return;
    reading.confidence -= std::max(0.0, best.fit - reading.fit) / reading.cleanBit;
    reading.confidence = std::max(0.0, reading.confidence);
  }

  void onPayload(receiver::Payload payload) {
    for (auto it = recent.begin(); it != recent.end(); ++it) {
      if (!receiver::followsAfterSilence(*it, payload, rate)) continue;
      const auto [a, b] = choose(*it, payload);
      if (a->bits != b->bits && std::next(it) != recent.end()) continue;  // a nearer one may agree
      receiver::Payload first = *a, second = *b;
      // A repetition read with the polarity that fits it less well than a
      // command does is only as certain as that difference allows.
      discount(first, *it);
      discount(second, payload);
      // Two readings that do not make a command: their sum may, read once
      // more, if it reads clearly.
      if (receiver::assemble(first, &second, rate).damaged) {
        if (auto combined = receiver::readSum(decoder, *it, payload, rate)) {
          first = *combined, second = *combined;
          second.start = b->start, second.end = b->end;
        }
      }
      const double start = it->start;
      recent.erase(it);
      // Unpaired payloads that began before this transmission come first.
      while (!recent.empty() && recent.front().start < start) {
        reportUnpaired(recent.front());
        recent.erase(recent.begin());
      }
      emit(receiver::assemble(first, &second, rate), first.start, second.end,
           std::max(first.amplitude, second.amplitude));
      return;
    }
    recent.push_back(std::move(payload));
  }

  // A payload that no second repetition followed in time.
  void expirePayloads(bool all) {
    const double window =
        (receiver::kStopAndSilence * 1.15 + kLongestPayloadSamples + 200) * scale +
        static_cast<double>(4 * block) + kAfterRun * rate;
    while (!recent.empty() && (all || static_cast<double>(written) - recent.front().end > window)) {
      reportUnpaired(recent.front());
      recent.erase(recent.begin());
    }
  }

  // A repetition whose partner was not read, or not read as one: the
  // partner's place follows from the repetition's own length, and the two
  // are added up there, as a partner of either polarity.
  bool readWithPartner(const receiver::Payload& found) {
    const double length = found.end - found.start;
    const double gap = receiver::kStopAndSilence * scale;
    const double margin = kWaveMargin * scale, settle = kFilterSettle * rate;
    const double oldest = written > capacity ? static_cast<double>(written - capacity) : 0.0;
    for (const double start : {found.end + gap, found.start - gap - length}) {
      const double from = std::floor(start - margin - settle);
      const double to = std::ceil(start + length + margin);
      if (from < oldest || to > static_cast<double>(written)) continue;
      receiver::Payload partner;
      partner.wave = combinedBand(static_cast<std::uint64_t>(from), static_cast<std::uint64_t>(to));
      const auto settled = static_cast<std::ptrdiff_t>(settle);
      partner.wave.erase(partner.wave.begin(), partner.wave.begin() + settled);
      partner.waveStart = static_cast<std::uint64_t>(from) + settled;
      partner.start = start;
      partner.end = start + length;
      for (const int polarity : {found.polarity, -found.polarity}) {
        partner.polarity = polarity;
        const bool before = start < found.start;
        auto combined = before ? receiver::readSum(decoder, partner, found, rate)
                               : receiver::readSum(decoder, found, partner, rate);
        if (!combined) continue;
        receiver::Payload first = *combined, second = *combined;
        second.start = before ? found.start : start;
        second.end = before ? found.end : start + length;
        emit(receiver::assemble(first, &second, rate), first.start, second.end, found.amplitude);
        return true;
      }
    }
    return false;
  }

  void reportUnpaired(const receiver::Payload& payload) {
    // A payload is followed by silence: a reading with signal just after it
    // ends some bits early, and its partner's place would be wrong too.
    const bool beforeSilence = payload.snrAfterDb >= kReportableSnrDb;
    if (beforeSilence && readWithPartner(payload)) return;
    if (payload.confidence < kReportableMargin || payload.snrDb < kReportableSnrDb) return;
    emit(receiver::assemble(payload, nullptr, rate), payload.start, payload.end, payload.amplitude);
  }

  void emit(Transmission transmission, double start, double end, double amplitude) {
    if (last && start >= last->start && echoOfLast(transmission, start, amplitude)) return;
    if (!transmission.damaged) {
      Command sent;
      sent.verb = transmission.command;
      const double length = commandFrames(sent) * scale;
      last = Reported{transmission.bits[0], start, end, amplitude, start + kHoldOff * length};
    }
    if (callback) callback(transmission);
    decoded.push_back(std::move(transmission));
  }

  // Whether a reading that begins at `start` belongs to the transmission
  // reported last. No transmission begins before the last one's length has
  // passed: whatever is read inside it (a reflection, a reverberation tail
  // read as bits) is that transmission again, however long the room. Later,
  // a copy of the same bits much weaker, or no stronger and close behind,
  // is an echo; so is a much weaker damaged stretch close behind.
  bool echoOfLast(const Transmission& transmission, double start, double amplitude) const {
    if (start < last->holdUntil) return true;
    const bool same = transmission.bits[0] == last->bits;
    const double after = start - last->end;
    if (same && amplitude < kEchoAmplitude * last->amplitude && after < kLongEchoSeconds * rate)
      return true;
    if (after >= kEchoHoldOffSeconds * rate) return false;
    const bool copy = same && amplitude <= 1.1 * last->amplitude;
    const bool weakDebris = transmission.damaged && amplitude < kEchoAmplitude * last->amplitude;
    return copy || weakDebris;
  }

  struct Reported {
    std::string bits;
    double start, end, amplitude;
    double holdUntil;  // no other transmission can begin before
  };

  const double rate, scale;
  const int channels;
  receiver::ActivityGate gate;
  receiver::BandPass bandPass;
  receiver::PayloadDecoder decoder;
  const std::size_t block, capacity;
  std::vector<std::vector<float>> ring;
  std::vector<const float*> pointers;
  std::uint64_t written = 0;
  std::size_t fill = 0;  // samples of the block being filled
  std::vector<float> equalisedSignal;
  std::vector<receiver::Payload> recent;
  std::optional<Reported> last;
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
  state_->finish();
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
