#include "receiver/payload_decoder.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace nimbara::receiver {
namespace {

constexpr double kReferenceRate = 44100.0;
constexpr int kLongestPayload = 57;
constexpr int kPayloadLengths[] = {17, 25, 41, 57};
constexpr double kNone = -std::numeric_limits<double>::infinity();
// A covered sample costs this share of the stretch's level: a bit in a
// reverberation tail or in noise does not pay for itself.
constexpr double kBias = 0.3;
// A re-timed bit costs this share of the level per sample, so that noise
// does not walk the clock.
constexpr double kShiftCost = 0.03;
// How fast a clock follows its shifts, and how far from nominal it may run.
constexpr double kClockGain = 0.1;
constexpr double kMaxStretch = 0.06;
// Starts are ranked on as long a stretch as this many bits would take (a
// wrong phase shows at once); the best few are scored over the whole
// stretch, and the best of each polarity searched as sequences.
constexpr int kRankingBits = 16;
constexpr std::size_t kStartsRescored = 6;
constexpr int kStartsKept = 2;
// Sequences this many clean 0-bits worse than the best at the same point are
// not followed further.
constexpr double kBeamBits = 4;

int stateIndex(int bits, int units) {
  return bits * (bits + 1) / 2 + (units - bits);
}

}  // namespace

PayloadDecoder::PayloadDecoder(double sampleRate)
    : scale_(sampleRate / kReferenceRate),
      half_{10 * scale_, 20 * scale_},
      step_(0.5 * scale_),
      onsetSlack_(std::max(8.0, std::round(sampleRate / 1000))) {
  const int states = stateIndex(kLongestPayload + 1, 2 * kLongestPayload + 2);
  score_.resize(states);
  clock_.resize(states);
  backward_.resize(states);
  bitScore_[0].resize(states);
  bitScore_[1].resize(states);
  bit_.resize(states);
}

// How much the signal looks like a bit (of either length and polarity) just
// after t (direction 1) or just before it (-1).
double PayloadDecoder::bitLike(double t, int direction) const {
  double most = 0;
  for (double h : half_) {
    most = std::max(most, std::fabs(correlation(h, direction > 0 ? t : t - 2 * h, 1)));
  }
  return most;
}

// Each bit may begin a step early or late; a shift also adjusts the clock's
// stretch, so that a sender running fast or slow is followed without a shift
// at every bit (a second-order loop).
void PayloadDecoder::scoreBits(Clock clock, int polarity, bool retime, double score[2],
                               Clock next[2]) const {
  // A 1-bit's half is a whole 0-bit: the two correlations share their
  // prefix sums at t and t + 2h and, per shift, need only four of them.
  const double half = half_[0] * (1 + clock.stretch);
  double best[2] = {kNone, kNone}, shift[2] = {0, 0};
  const int shifts = retime ? 1 : 0;
  for (int s = -shifts; s <= shifts; ++s) {
    const double t = clock.time + s * step_;
    const double s0 = prefixAt(t), s1 = prefixAt(t + half), s2 = prefixAt(t + 2 * half),
                 s4 = prefixAt(t + 4 * half);
    const double c[2] = {polarity * (2 * s1 - s0 - s2), polarity * (2 * s2 - s0 - s4)};
    for (int bit = 0; bit < 2; ++bit) {
      const double length = 2 * half * (bit + 1);
      const double value = c[bit] - (s != 0 ? shiftCost_ * length : 0);
      if (value > best[bit]) best[bit] = value, shift[bit] = s * step_;
    }
  }
  for (int bit = 0; bit < 2; ++bit) {
    const double length = 2 * half * (bit + 1);
    next[bit].time = clock.time + shift[bit] + length;
    next[bit].stretch =
        std::clamp(clock.stretch + kClockGain * shift[bit] / length, -kMaxStretch, kMaxStretch);
    score[bit] = best[bit] - bias_ * length;
  }
}

// Bit by bit, always the better waveform, up to searchEnd: cheap, and
// good enough to rank candidate starts and polarities. The score is that of
// the best prefix, less whatever looks like a bit just before the start (a
// start that skips the payload's first bits).
double PayloadDecoder::greedyScore(double t0, int polarity, double searchEnd, bool retime) const {
  const double before = bitLike(t0, -1);
  Clock clock{t0, 0};
  double sum = 0, best = 0;
  for (int i = 0; i < kLongestPayload && clock.time < searchEnd; ++i) {
    Clock next[2];
    double c[2];
    scoreBits(clock, polarity, retime, c, next);
    const double c0 = c[0], c1 = c[1];
    const Clock& next0 = next[0];
    const Clock& next1 = next[1];
    sum += std::max(c0, c1);
    clock = c0 >= c1 ? next0 : next1;
    best = std::max(best, sum);
  }
  return best - before;
}

std::optional<Payload> PayloadDecoder::decode(const std::vector<float>& signal,
                                              std::uint64_t origin, double onset, double searchEnd,
                                              double level) {
  if (signal.empty() || level <= 0) return std::nullopt;
  prefix_.resize(signal.size() + 1);
  prefix_[0] = 0;
  for (std::size_t i = 0; i < signal.size(); ++i) prefix_[i + 1] = prefix_[i] + signal[i];
  prefix_.push_back(prefix_.back());
  lastStep_ = static_cast<double>(signal.size());
  level_ = level;
  bias_ = kBias * level;
  shiftCost_ = kShiftCost * level;
  const double relativeOnset = onset - static_cast<double>(origin);
  // The run ends with the last block that was active: the last bit may reach
  // up to a block further.
  const double relativeEnd = searchEnd + onsetSlack_ - static_cast<double>(origin);

  // Activity is measured in blocks, and noise can open a run early: the first
  // bit begins a little before the onset or up to a few blocks after it.
  std::vector<Start> starts;
  const double from = relativeOnset - 2 * half_[0];
  const double to = relativeOnset + 3 * onsetSlack_ + half_[0];
  const double rankingSpan = kRankingBits * 3 * half_[0];
  for (double t = from; t <= to; t += 0.4 * half_[0]) {
    for (int polarity : {1, -1}) {
      starts.push_back(
          {t, polarity, greedyScore(t, polarity, std::min(relativeEnd, t + rankingSpan), true)});
    }
  }
  // The same stretch of time after each candidate (as many bits as would
  // fit, half of them 1s) ranks them; the few best are scored over the whole
  // stretch.
  const auto byScore = [](const Start& a, const Start& b) { return a.score > b.score; };
  const std::size_t rescored = std::min(kStartsRescored, starts.size());
  std::partial_sort(starts.begin(), starts.begin() + rescored, starts.end(), byScore);
  starts.resize(rescored);
  for (Start& start : starts) {
    start.score = greedyScore(start.time, start.polarity, relativeEnd, true);
  }
  std::sort(starts.begin(), starts.end(), byScore);
  // Inverted, a run of 0-bits is the same run half a period later, and a run
  // of 1-bits the same run one 0-bit later: only the other bits and the edges
  // tell the polarities apart. Both are searched, and the best reading of
  // each is kept: the other repetition decides between them.
  std::optional<Payload> byPolarity[2];
  int searched[2] = {0, 0};
  for (const Start& start : starts) {
    const int side = start.polarity > 0 ? 0 : 1;
    if (searched[side] == kStartsKept) continue;
    ++searched[side];
    auto payload = searchSequences(start.time, start.polarity, relativeEnd, true);
    std::optional<Payload>& best = byPolarity[side];
    if (payload && (!best || payload->fit > best->fit)) best = std::move(payload);
  }
  // A run of equal bits at an edge makes a start one 0-bit early or late
  // look almost as good, and both repetitions fall for it alike: a reading
  // whose shifted twin fits nearly as well is no more certain than that.
  for (auto& payload : byPolarity) {
    if (!payload) continue;
    for (int direction : {-1, 1}) {
      const double shift = direction * 2 * half_[0];
      auto twin = searchSequences(payload->start + shift, payload->polarity, relativeEnd, false);
      if (!twin || twin->bits == payload->bits) continue;
      const double margin = std::max(0.0, payload->fit - twin->fit) / (level_ * 2 * half_[0]);
      payload->confidence = std::min(payload->confidence, std::clamp(margin, 0.0, 1.0));
    }
  }
  for (auto& payload : byPolarity) {
    if (payload) finishPayload(*payload, signal, origin);
  }
  if (!byPolarity[0] && !byPolarity[1]) return std::nullopt;
  const int better =
      !byPolarity[1] || (byPolarity[0] && byPolarity[0]->fit >= byPolarity[1]->fit) ? 0 : 1;
  Payload best = std::move(*byPolarity[better]);
  if (byPolarity[1 - better]) {
    best.inverted = std::make_shared<Payload>(std::move(*byPolarity[1 - better]));
  }
  return best;
}

// The signal-to-noise ratio, and the times in the stream.
void PayloadDecoder::finishPayload(Payload& payload, const std::vector<float>& signal,
                                   std::uint64_t origin) const {
  Payload* best = &payload;

  // The signal-to-noise ratio: the payload's power against the quiet before
  // the activity began (the silence that precedes every payload).
  auto power = [&](double a, double b) {
    const auto i = static_cast<std::size_t>(std::clamp(a, 0.0, static_cast<double>(signal.size())));
    const auto j = static_cast<std::size_t>(std::clamp(b, 0.0, static_cast<double>(signal.size())));
    double sum = 0;
    for (std::size_t k = i; k < j; ++k) sum += static_cast<double>(signal[k]) * signal[k];
    return j > i ? sum / static_cast<double>(j - i) : 0.0;
  };
  const double quiet = power(best->start - 200 * scale_, best->start - 40 * scale_);
  const double total = power(best->start, best->end);
  best->snrDb = std::clamp(10 * std::log10(std::max(total - quiet, 1e-12) / std::max(quiet, 1e-12)),
                           -20.0, 99.0);
  best->start += static_cast<double>(origin);
  best->end += static_cast<double>(origin);
}

// Viterbi over the lattice of (bits sent, length so far), each state keeping
// its own re-timed clock; then a backward pass for the margins.
std::optional<Payload> PayloadDecoder::searchSequences(double t0, int polarity, double searchEnd,
                                                       bool margins) {
  std::fill(score_.begin(), score_.end(), kNone);
  score_[0] = 0;
  clock_[0] = {t0, 0};
  int lastLevel = 0;
  const double beam = kBeamBits * level_ * 2 * half_[0];
  for (int i = 0; i < kLongestPayload; ++i) {
    bool any = false;
    double levelBest = kNone;
    for (int k = i; k <= 2 * i; ++k) levelBest = std::max(levelBest, score_[stateIndex(i, k)]);
    for (int k = i; k <= 2 * i; ++k) {
      const int at = stateIndex(i, k);
      if (score_[at] < levelBest - beam || clock_[at].time > searchEnd + 2 * half_[0]) {
        bitScore_[0][at] = bitScore_[1][at] = kNone;
        continue;
      }
      any = true;
      Clock nexts[2];
      double scores[2];
      scoreBits(clock_[at], polarity, true, scores, nexts);
      for (int b = 0; b < 2; ++b) {
        const Clock& next = nexts[b];
        const double c = scores[b];
        bitScore_[b][at] = c;
        const int to = stateIndex(i + 1, k + 1 + b);
        if (score_[at] + c > score_[to]) {
          score_[to] = score_[at] + c;
          clock_[to] = next;
          bit_[to] = static_cast<std::uint8_t>(b);
        }
      }
    }
    if (!any) break;
    lastLevel = i + 1;
  }

  // The end: the best state of a valid payload length that ends in time.
  int endBits = 0, endUnits = 0;
  double endScore = kNone, endFit = kNone;
  for (int n : kPayloadLengths) {
    if (n > lastLevel) break;
    for (int k = n; k <= 2 * n; ++k) {
      const int at = stateIndex(n, k);
      // A payload is followed by the stop level and silence: a bit's worth
      // of signal right after the end means the sequence ended too early.
      const double fit = score_[at] - bitLike(clock_[at].time, 1);
      if (fit > endFit && clock_[at].time <= searchEnd + half_[0]) {
        endFit = fit, endScore = score_[at], endBits = n, endUnits = k;
      }
    }
  }
  if (endScore == kNone || endScore <= 0) return std::nullopt;

  Payload payload;
  payload.bits.assign(endBits, '0');
  std::vector<int> units(endBits + 1);
  units[endBits] = endUnits;
  for (int i = endBits, k = endUnits; i > 0; --i) {
    const int b = bit_[stateIndex(i, k)];
    payload.bits[i - 1] = static_cast<char>('0' + b);
    k -= 1 + b;
    units[i - 1] = k;
  }
  payload.start = t0;
  payload.polarity = polarity;
  payload.end = clock_[stateIndex(endBits, endUnits)].time;
  const double span = payload.end - payload.start;
  payload.amplitude = (endScore + bias_ * span) / span;
  payload.fit = endFit - bitLike(t0, -1);

  if (!margins) return payload;

  // Backward: the best way from each state to any end of a valid length.
  std::fill(backward_.begin(), backward_.end(), kNone);
  auto isEnd = [&](int i, int at) {
    return (i == 17 || i == 25 || i == 41 || i == 57) && score_[at] != kNone &&
           clock_[at].time <= searchEnd + half_[0];
  };
  for (int i = lastLevel; i >= 0; --i) {
    for (int k = i; k <= 2 * i; ++k) {
      const int at = stateIndex(i, k);
      if (score_[at] == kNone) continue;
      if (isEnd(i, at)) backward_[at] = 0;
      if (i == lastLevel) continue;
      for (int b = 0; b < 2; ++b) {
        const double after = backward_[stateIndex(i + 1, k + 1 + b)];
        if (after != kNone && bitScore_[b][at] != kNone) {
          backward_[at] = std::max(backward_[at], bitScore_[b][at] + after);
        }
      }
    }
  }
  // Each bit's margin: the best sequence against the best one with that bit
  // flipped, in units of a clean 0-bit's correlation.
  double weakest = std::numeric_limits<double>::infinity();
  for (int i = 0; i < endBits; ++i) {
    const int flipped = payload.bits[i] == '1' ? 0 : 1;
    double alternative = kNone;
    for (int k = i; k <= 2 * i; ++k) {
      const int at = stateIndex(i, k);
      if (score_[at] == kNone || bitScore_[flipped][at] == kNone) continue;
      const double after = backward_[stateIndex(i + 1, k + 1 + flipped)];
      if (after == kNone) continue;
      alternative = std::max(alternative, score_[at] + bitScore_[flipped][at] + after);
    }
    const double margin = alternative == kNone ? endScore : std::max(0.0, endScore - alternative);
    weakest = std::min(weakest, margin);
  }
  // Against the stretch's level rather than the path's own correlation, which
  // noise inflates by always picking the better of two waveforms.
  const double cleanBit = level_ * 2 * half_[0];
  payload.confidence = cleanBit > 0 ? std::clamp(weakest / cleanBit, 0.0, 1.0) : 0.0;
  return payload;
}

}  // namespace nimbara::receiver
