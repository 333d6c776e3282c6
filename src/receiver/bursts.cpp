#include "receiver/bursts.h"

#include <nimbara/api/command.h>

#include <algorithm>
#include <cmath>

namespace nimbara::receiver {
namespace {

constexpr double kReferenceRate = 44100.0;
constexpr float kAbsoluteThreshold = 0.002f;  // -54 dBFS: below it is silence
constexpr std::size_t kNoiseBlocks = 40;      // of 5 ms: the floor's memory
constexpr std::size_t kShortestPayloadHalves = 30;
constexpr double kWakeUpAndSilence = 220 + 441;  // before the first payload

double median(std::vector<float> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

}  // namespace

BurstDetector::BurstDetector(double sampleRate)
    : scale_(sampleRate / kReferenceRate),
      shortestHalf_(6.5 * scale_),
      longestHalf_(27.0 * scale_),
      dcAlpha_(1.0 / (0.02 * sampleRate)),
      smoothRing_(std::max<std::size_t>(1, std::lround(5 * scale_)), 0.0f),
      envelopeRing_(std::max<std::size_t>(4, std::lround(44 * scale_)), 0.0f),
      blockMeans_(kNoiseBlocks, 1e9f),
      blockLength_(std::max<std::uint64_t>(1, std::llround(0.005 * sampleRate))),
      peakDecay_(static_cast<float>(std::exp(-1.0 / (0.3 * sampleRate)))),
      smoothScale_(1.0 / smoothRing_.size()),
      envelopeScale_(1.0 / envelopeRing_.size()) {}

std::uint64_t BurstDetector::secondRepetitionWindow() const {
  // A second payload is only seen once it has ended: the silence, then the
  // longest payload (57 bits of 40 samples).
  return static_cast<std::uint64_t>((446 + 57 * 40 + 200) * scale_);
}

void BurstDetector::push(const float* samples, std::size_t count, std::vector<Burst>& ended) {
  for (std::size_t i = 0; i < count; ++i) {
    if (auto burst = pushOne(samples[i])) ended.push_back(std::move(*burst));
  }
}

inline std::optional<Burst> BurstDetector::pushOne(float sample) {
  const std::uint64_t n = count_++;
  dc_ += dcAlpha_ * (sample - dc_);
  const auto x = static_cast<float>(sample - dc_);

  smoothSum_ += x - smoothRing_[smoothPos_];
  smoothRing_[smoothPos_] = x;
  if (++smoothPos_ == smoothRing_.size()) smoothPos_ = 0;
  const auto y = static_cast<float>(smoothSum_ * smoothScale_);

  envelopeSum_ += std::fabs(y) - envelopeRing_[envelopePos_];
  envelopeRing_[envelopePos_] = std::fabs(y);
  if (++envelopePos_ == envelopeRing_.size()) envelopePos_ = 0;
  const float envelope = static_cast<float>(envelopeSum_ * envelopeScale_);
  blockSum_ += envelope;
  if (++blockFill_ == blockLength_) {
    blockMeans_[blockIndex_] = static_cast<float>(blockSum_ / blockLength_);
    if (++blockIndex_ == kNoiseBlocks) blockIndex_ = 0;
    // The quietest recent block: every gap between bursts holds one.
    noiseFloor_ = *std::min_element(blockMeans_.begin(), blockMeans_.end());
    blockSum_ = 0;
    blockFill_ = 0;
  }
  peak_ = std::max(envelope, peak_ * peakDecay_);
  // Well above the noise (short of half the signal), and a fair share of
  // what the signal last reached, so that neither noise nor ringing and
  // filter tails between bursts count as crossings.
  const float threshold =
      std::max({kAbsoluteThreshold, 0.2f * peak_, std::min(3.0f * noiseFloor_, 0.5f * peak_)});

  if ((y >= 0) != (previous_ >= 0)) {
    lastZero_ = static_cast<double>(n) - 1 + previous_ / (previous_ - y);
  }
  // Where the signal last left the quiet band: a burst that starts on the
  // same side as the tail before it crosses no zero at its onset.
  if (std::fabs(y) <= 0.5f * threshold) {
    lastQuiet_ = static_cast<double>(n) + 0.5;
    quiet_ = true;
  }
  previous_ = y;
  halfPeak_ = std::max(halfPeak_, std::fabs(y));

  std::optional<Burst> ready;
  if ((y > threshold && polarity_ != 1) || (y < -threshold && polarity_ != -1)) {
    polarity_ = y > 0 ? 1 : -1;
    lastZero_ = std::max(lastZero_, lastQuiet_);
    if (!run_.empty()) {
      Half& open = run_.back();
      const double length = lastZero_ - open.start;
      open.peak = halfPeak_;
      if (length < shortestHalf_ || length > longestHalf_) {
        // A burst that begins on the side where noise last left the
        // threshold crosses nothing at its onset: its first half then hides
        // at the end of an overlong one, after the signal was last quiet.
        const double tail = lastZero_ - regionStart_;
        const bool hiddenHalf = length > longestHalf_ && regionStart_ > open.start &&
                                tail >= shortestHalf_ && tail <= longestHalf_;
        ready = closeRun();
        if (hiddenHalf) run_.push_back({regionStart_, halfPeak_});
      }
    }
    run_.push_back({lastZero_, 0});
    halfPeak_ = 0;
  } else if (!run_.empty() && n - run_.back().start > 1.5 * longestHalf_) {
    ready = closeRun();  // a half that never ends: the silence after the stop bits
    polarity_ = 0;
  }
  if (std::fabs(y) > threshold && quiet_) {
    regionStart_ = lastQuiet_;
    quiet_ = false;
  }
  return ready;
}

std::optional<Burst> BurstDetector::finish() {
  return closeRun();
}

// Decodes the current run as a payload, if it is one. Its last half is the
// one that broke the run (or never ended): it only tells where the one
// before it ended.
std::optional<Burst> BurstDetector::closeRun() {
  std::vector<Half> halves = std::move(run_);
  run_.clear();
  if (halves.size() < kShortestPayloadHalves) return std::nullopt;
  // Each half's length is the distance to the next crossing; the last closed
  // half ended where the (dropped) open one began.
  std::vector<double> lengths;
  for (std::size_t i = 0; i + 1 < halves.size(); ++i) {
    lengths.push_back(halves[i + 1].start - halves[i].start);
  }
  halves.pop_back();
  // Noise at the edges of a burst is weaker than the signal: trim it away.
  std::vector<float> peaks;
  for (const Half& half : halves) peaks.push_back(half.peak);
  const double typical = median(peaks);
  std::size_t first = 0, last = halves.size();
  while (first < last && halves[first].peak < 0.6 * typical) ++first;
  while (last > first && halves[last - 1].peak < 0.6 * typical) --last;
  if (last - first < kShortestPayloadHalves) return std::nullopt;

  // Both halves of a bit last equally long; pairs that straddle two bits of
  // different value do not. A payload holds 17, 25, 41 or 57 bits: stray
  // halves at either end (the stop level, noise, a filter's tail) are cut
  // where the pairs then agree best, trimming as little as possible.
  auto mismatch = [&](std::size_t a) {
    return std::fabs(lengths[a] - lengths[a + 1]) / (lengths[a] + lengths[a + 1]);
  };
  auto validLength = [](std::size_t bits) {
    return bits == 17 || bits == 25 || bits == 41 || bits == 57;
  };
  std::size_t bestFirst = first, bestLast = last - (last - first) % 2;
  double bestScore = 1e9;
  for (std::size_t s = first; s <= first + 3 && s < last; ++s) {
    for (std::size_t e = last; e + 3 >= last && e > s + 1; --e) {
      if ((e - s) % 2 != 0 || !validLength((e - s) / 2)) continue;
      double score = 0.2 * static_cast<double>((s - first) + (last - e));
      for (std::size_t i = s; i + 1 < e; i += 2) score += mismatch(i);
      if (score < bestScore) bestScore = score, bestFirst = s, bestLast = e;
    }
  }
  first = bestFirst;
  last = bestLast;

  Burst burst;
  burst.payload = true;
  burst.samplesPerReferenceSample = scale_;
  burst.startSample = static_cast<std::uint64_t>(std::max(0.0, halves[first].start));
  burst.endSample = static_cast<std::uint64_t>(halves[last - 1].start + lengths[last - 1]);
  for (std::size_t i = first; i + 1 < last; i += 2) {
    // The onset of a burst is its least certain edge: the first bit is read
    // from its second half alone.
    const double period = i == first ? 2 * lengths[i + 1] : lengths[i] + lengths[i + 1];
    burst.bits += period / scale_ >= 30.0 ? '1' : '0';
  }
  return burst;
}

bool followsAfterSilence(const Burst& first, const Burst& second) {
  const double gap =
      (static_cast<double>(second.startSample) - first.endSample) / first.samplesPerReferenceSample;
  return gap >= 380 && gap <= 540;  // five stop samples and 441 of silence
}

namespace {

std::uint32_t field(const std::string& bits, std::size_t from, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = from; i < from + width; ++i) value = (value << 1) | (bits[i] == '1');
  return value;
}

bool evenParity(const std::string& bits) {
  return !bits.empty() && std::count(bits.begin(), bits.end(), '1') % 2 == 0;
}

}  // namespace

Transmission assemble(const Burst& first, const Burst* second) {
  Transmission t;
  t.bits[0] = first.bits;
  if (second != nullptr) t.bits[1] = second->bits;
  const double rate = first.samplesPerReferenceSample * kReferenceRate;
  t.startSeconds = std::max(0.0, first.startSample / rate - kWakeUpAndSilence / kReferenceRate);
  t.parityOk[0] = evenParity(t.bits[0]);
  t.parityOk[1] = evenParity(t.bits[1]);
  t.repetitionsAgree = second != nullptr && t.bits[0] == t.bits[1];

  const std::string& bits = t.bits[0];
  const std::size_t parameterBits = bits.size() >= 9 ? bits.size() - 9 : 0;
  t.opcode = static_cast<std::uint8_t>(bits.size() >= 8 ? field(bits, 0, 8) : 0);
  t.command = bits.size() >= 17
                  ? verbOfOpcode(t.opcode, static_cast<unsigned>(parameterBits), &t.asksTank)
                  : "unknown";
  if (parameterBits == 48) {
    t.red = static_cast<std::uint8_t>(field(bits, 8, 8));
    t.green = static_cast<std::uint8_t>(field(bits, 16, 8));
    t.blue = static_cast<std::uint8_t>(field(bits, 24, 8));
    t.special = static_cast<std::uint8_t>(field(bits, 32, 8));
    t.time = static_cast<std::int16_t>(field(bits, 40, 16));
  } else if (parameterBits == 16) {
    t.time = static_cast<std::int16_t>(field(bits, 8, 16));
  } else if (parameterBits == 32) {
    t.number = field(bits, 8, 32);
  }
  t.damaged = t.command == "unknown" || !t.parityOk[0] || !t.parityOk[1] || !t.repetitionsAgree;
  return t;
}

}  // namespace nimbara::receiver
