#include "receiver/payload_decoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <stdexcept>

#include "receiver/frame_geometry.h"

namespace nimbara::receiver {
namespace {

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
constexpr int kStartsKept = 2;  // one while any bits are read
// How often (in bits) a walk checks whether it can still rank among the best.
constexpr int kBoundEvery = 2;
// How many times the start may move by a 0-bit to a better reading.
constexpr int kStartMoves = 2;
// A reading of any bits this sure that is a command needs no search over the
// commands' layouts.
constexpr double kSureMargin = 0.3;
// A bit's own score (its correlation less the cost of the time it covers)
// may fall this far below zero, in clean 0-bits, before it counts against
// the reading's confidence.
constexpr double kOwnBitAllowance = 0.5;
// Sequences this many clean 0-bits worse than the best at the same point are
// not followed further.
constexpr double kBeamBits = 4;
// The first, quick reading: the best ranked start of each polarity, a beam
// this narrow, taken as it is when it reads a command this sure, this far
// above the quiet on either side; anything less is read again in full.
constexpr double kQuickBeamBits = 2;
constexpr double kQuickMargin = 0.5;
constexpr double kQuickSnrDb = 12;
constexpr int kQuickStride = 2;  // its starts twice as far apart, then refined
// A reading outside every command's layout is taken only when it fits this
// many clean 0-bits better than the best command: noise alone rarely makes
// up that much.
constexpr double kUnknownLayoutBits = 1.0;

int stateIndex(int bits, int units) {
  return bits * (bits + 1) / 2 + (units - bits);
}

}  // namespace

PayloadDecoder::PayloadDecoder(double sampleRate)
    : scale_(sampleRate / kReferenceRate),
      half_{10 * scale_, 20 * scale_},
      step_(0.5 * scale_),
      onsetSlack_(std::max(8.0, std::round(sampleRate / 1000))),
      layouts_(payloadLayouts()),
      statesPerLayout_(stateIndex(kLongestPayload + 1, 2 * kLongestPayload + 2)) {
  beamBits_ = kBeamBits;
  if (layouts_.size() > kMostLayouts) throw std::logic_error("more payload layouts than foreseen");
  const int states = static_cast<int>(layouts_.size()) * statesPerLayout_;
  scored_.resize(std::size_t{1} << kScoredBits);
  first_.resize(layouts_.size() * (kLongestPayload + 2));
  last_.resize(first_.size());
  alive_.resize(layouts_.size());
  reached_.resize(layouts_.size());
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

std::size_t PayloadDecoder::scoredSlot(const Clock& clock, int polarity) {
  std::uint64_t time, stretch;
  std::memcpy(&time, &clock.time, sizeof time);
  std::memcpy(&stretch, &clock.stretch, sizeof stretch);
  const std::uint64_t hash =
      (time ^ (stretch * 0x9E3779B97F4A7C15ULL) ^ static_cast<std::uint64_t>(polarity > 0)) *
      0xD6E8FEB86659FD93ULL;
  return static_cast<std::size_t>(hash >> (64 - kScoredBits));
}

// The next state's scores are looked up while this one's are worked out.
void PayloadDecoder::prefetchScored(const Clock& clock, int polarity) const {
  __builtin_prefetch(&scored_[scoredSlot(clock, polarity)]);
}

// Looked up first among the clocks scored since the stretch was prepared.
void PayloadDecoder::scoreBits(const Clock& clock, int polarity, double score[2],
                               Clock next[2]) const {
  std::uint64_t time, stretch;
  std::memcpy(&time, &clock.time, sizeof time);
  std::memcpy(&stretch, &clock.stretch, sizeof stretch);
  constexpr std::size_t mask = (std::size_t{1} << kScoredBits) - 1;
  std::size_t i = scoredSlot(clock, polarity);
  for (int probe = 0; probe < 8; ++probe, i = (i + 1) & mask) {
    Scored& entry = scored_[i];
    if (entry.stamp != stamp_) {
      entry.time = time, entry.stretch = stretch, entry.stamp = stamp_, entry.polarity = polarity;
      scoreBitsAfresh(clock, polarity, score, next, &entry);
      return;
    }
    if (entry.time == time && entry.stretch == stretch && entry.polarity == polarity) {
      score[0] = entry.score[0], score[1] = entry.score[1];
      next[0] = entry.next[0], next[1] = entry.next[1];
      return;
    }
  }
  scoreBitsAfresh(clock, polarity, score, next, nullptr);
}

// Each bit may begin a step early or late; a shift also adjusts the clock's
// stretch, so that a sender running fast or slow is followed without a shift
// at every bit (a second-order loop). Each result is stored where it goes
// straight from where it was worked out: read back at once as a whole, it
// would wait for its parts.
void PayloadDecoder::scoreBitsAfresh(const Clock& clock, int polarity, double score[2],
                                     Clock next[2], Scored* keep) const {
  // A 1-bit's half is a whole 0-bit: the two correlations share their
  // prefix sums at t and t + 2h and, per shift, need only four of them.
  const double half = half_[0] * (1 + clock.stretch);
  const double sign = polarity;
  const double length[2] = {2 * half, 2 * half * 2};
  // Away from the stretch's ends (nearly always) the prefix sums need no clamping.
  const bool within = clock.time - step_ >= 0 && clock.time + step_ + 4 * half <= lastStep_;
  const auto correlations = [&](double t, double c[2]) {
    double s0, s1, s2, s4;
    if (within) {
      s0 = prefixWithin(t), s1 = prefixWithin(t + half), s2 = prefixWithin(t + 2 * half),
      s4 = prefixWithin(t + 4 * half);
    } else {
      s0 = prefixAt(t), s1 = prefixAt(t + half), s2 = prefixAt(t + 2 * half),
      s4 = prefixAt(t + 4 * half);
    }
    c[0] = sign * (2 * s1 - s0 - s2);
    c[1] = sign * (2 * s2 - s0 - s4);
  };
  double early[2], centre[2], late[2];
  correlations(clock.time - step_, early);
  correlations(clock.time, centre);
  correlations(clock.time + step_, late);
  for (int bit = 0; bit < 2; ++bit) {
    // A shift costs a little; on a tie the earliest of the shifts is kept.
    const double cost = shiftCost_ * length[bit];
    double best = kNone, shift = 0;
    if (early[bit] - cost > best) best = early[bit] - cost, shift = -step_;
    if (centre[bit] > best) best = centre[bit], shift = 0;
    if (late[bit] - cost > best) best = late[bit] - cost, shift = step_;
    const Clock after{
        clock.time + shift + length[bit],
        std::clamp(clock.stretch + kClockGain * shift / length[bit], -kMaxStretch, kMaxStretch)};
    const double value = best - bias_ * length[bit];
    next[bit] = after;
    score[bit] = value;
    if (keep != nullptr) keep->next[bit] = after, keep->score[bit] = value;
  }
}

// Bit by bit, always the better waveform, up to searchEnd: cheap, and
// good enough to rank candidate starts and polarities. The score is that of
// the best prefix, less whatever looks like a bit just before the start (a
// start that skips the payload's first bits).
PayloadDecoder::Walk PayloadDecoder::startWalk(double t0) const {
  Walk walk;
  walk.clock = {t0, 0};
  walk.before = bitLike(t0, -1);
  return walk;
}

void PayloadDecoder::walkOn(Walk& walk, int polarity, double searchEnd, double floor) const {
  // Far below the floor, with room for rounding.
  const double slack = 1e-6 * level_ * 2 * half_[0];
  const bool bounded = floor != kNone;
  const Reach reach = reachTo(searchEnd);
  for (; walk.bits < kLongestPayload && walk.clock.time < searchEnd; ++walk.bits) {
    if (bounded && walk.bits % kBoundEvery == 0 &&
        std::max(walk.best, walk.sum + reachable(reach, walk.clock.time, walk.bits)) - walk.before <
            floor - slack) {
      walk.abandoned = true;
      return;
    }
    Clock next[2];
    double c[2];
    scoreBits(walk.clock, polarity, c, next);
    walk.sum += std::max(c[0], c[1]);
    walk.clock = c[0] >= c[1] ? next[0] : next[1];
    walk.best = std::max(walk.best, walk.sum);
  }
}

// A bit's score is at most the excess of its samples' magnitudes over the
// bias; the bits that follow cover the time up to the last one's end, each
// overlapping the one before by at most a step.
PayloadDecoder::Reach PayloadDecoder::reachTo(double searchEnd) const {
  const double end = searchEnd + step_ + 4 * half_[0] * (1 + kMaxStretch) + 1;
  const double last = static_cast<double>(excess_.size() - 1);
  const auto b = static_cast<std::size_t>(std::clamp(std::ceil(end) + 1, 0.0, last));
  return {end, b};
}

double PayloadDecoder::reachable(const Reach& reach, double from, int bits) const {
  const double shortest = 2 * half_[0] * (1 - kMaxStretch);
  const double last = static_cast<double>(excess_.size() - 1);
  const auto a = static_cast<std::size_t>(std::clamp(std::floor(from - step_ - 1), 0.0, last));
  const double count =
      std::min(static_cast<double>(kLongestPayload - bits), (reach.end - from) / shortest + 2);
  return excess_[std::max(a, reach.last)] - excess_[a] + count * step_ * peak_;
}

void PayloadDecoder::prepare(const std::vector<float>& signal, double level) {
  lastStep_ = static_cast<double>(signal.size());
  level_ = level;
  bias_ = kBias * level;
  shiftCost_ = kShiftCost * level;
  if (++stamp_ == 0) {
    for (Scored& entry : scored_) entry.stamp = 0;
    stamp_ = 1;
  }
  // Both prefix sums in one pass (the last step of prefix_ repeats, so that
  // interpolation at the very end reads within it).
  prefix_.resize(signal.size() + 2);
  excess_.resize(signal.size() + 1);
  double sum = 0, excessSum = 0;
  prefix_[0] = excess_[0] = peak_ = 0;
  for (std::size_t i = 0; i < signal.size(); ++i) {
    const double x = signal[i];
    sum += x;
    prefix_[i + 1] = sum;
    const double excess = std::max(0.0, std::fabs(x) - bias_);
    excessSum += excess;
    excess_[i + 1] = excessSum;
    peak_ = std::max(peak_, excess);
  }
  prefix_[signal.size() + 1] = sum;
}

double PayloadDecoder::shortfall(const std::vector<float>& signal, std::uint64_t origin,
                                 double start, int polarity, const std::string& bits,
                                 double level) {
  if (signal.empty() || level <= 0) return std::numeric_limits<double>::infinity();
  prepare(signal, level);
  const double t0 = start - static_cast<double>(origin);
  // The given bits, each re-timed as a search would.
  Clock clock{t0, 0};
  double fit = 0;
  for (char bit : bits) {
    const int b = bit == '1';
    double scores[2];
    Clock next[2];
    scoreBits(clock, polarity, scores, next);
    fit += scores[b];
    clock = next[b];
  }
  fit -= bitLike(clock.time, 1) + bitLike(t0, -1);
  // Any bits, over no more time than the given ones took.
  constrained_ = false;
  const auto best = searchSequences(t0, polarity, clock.time + half_[0], false);
  const double cleanBit = level_ * 2 * half_[0];
  return best ? std::max(0.0, best->fit - fit) / cleanBit : 0.0;
}

// The best reading of each polarity from the best ranked starts.
void PayloadDecoder::readPolarities(const std::vector<Start>& starts, double relativeEnd,
                                    bool constrained, std::optional<Payload> (&byPolarity)[2]) {
  constrained_ = constrained;
  int searched[2] = {0, 0};
  for (const Start& start : starts) {
    const int side = start.polarity > 0 ? 0 : 1;
    if (searched[side] == (constrained ? kStartsKept : 1)) continue;
    ++searched[side];
    // With one start per polarity, its margins come with the first search.
    auto payload = searchSequences(start.time, start.polarity, relativeEnd, !constrained);
    std::optional<Payload>& best = byPolarity[side];
    if (payload && (!best || payload->fit > best->fit)) best = std::move(payload);
  }
  for (auto& payload : byPolarity) {
    if (payload) settleStart(payload, relativeEnd, !constrained);
  }
}

// Moves a reading's start by whole 0-bits while that reads better, then
// reads it with its margins (unless it has them, and stayed).
void PayloadDecoder::settleStart(std::optional<Payload>& payload, double relativeEnd,
                                 bool hasMargins) {
  // A start a 0-bit off that reads better is the start.
  std::optional<Payload> twins[2];
  std::optional<Payload> left;  // the reading the start moved from: one twin of the new start
  for (int moves = 0; moves <= kStartMoves; ++moves) {
    int better = -1;
    for (int side = 0; side < 2; ++side) {
      const double start = payload->start + (2 * side - 1) * 2 * half_[0];
      if (left && std::memcmp(&left->start, &start, sizeof start) == 0) {
        twins[side] = std::move(left);
        left.reset();
      } else {
        twins[side] = searchSequences(start, payload->polarity, relativeEnd, false);
      }
      const double fit = better < 0 ? payload->fit : twins[better]->fit;
      if (twins[side] && twins[side]->fit > fit) better = side;
    }
    if (better < 0 || moves == kStartMoves) break;
    left = std::move(payload);
    payload = std::move(twins[better]);
    hasMargins = false;
  }
  if (!hasMargins) payload = searchSequences(payload->start, payload->polarity, relativeEnd, true);
  if (!payload) return;
  // A run of equal bits at an edge makes a start one 0-bit early or late
  // look almost as good, and both repetitions fall for it alike: a reading
  // whose shifted twin fits nearly as well is no more certain than that.
  for (const auto& twin : twins) {
    if (!twin || twin->bits == payload->bits) continue;
    // A command is not put in doubt by a shifted reading that is none.
    if (isCommandPayload(layouts_, payload->bits) && !isCommandPayload(layouts_, twin->bits))
      continue;
    const double margin = std::max(0.0, payload->fit - twin->fit) / (level_ * 2 * half_[0]);
    payload->confidence = std::min(payload->confidence, std::clamp(margin, 0.0, 1.0));
  }
}

namespace {

bool sureCommand(const std::vector<PayloadLayout>& layouts, const std::optional<Payload>& p,
                 double margin) {
  return p && p->confidence >= margin && isCommandPayload(layouts, p->bits);
}

int betterSide(const std::optional<Payload> (&byPolarity)[2]) {
  return !byPolarity[1] || (byPolarity[0] && byPolarity[0]->fit >= byPolarity[1]->fit) ? 0 : 1;
}

}  // namespace

// The quick reading stands when both polarities were read and the better one
// is a sure command well above the quiet before and after it.
bool PayloadDecoder::quickReadingHolds(const std::optional<Payload> (&byPolarity)[2],
                                       const std::vector<float>& signal,
                                       std::uint64_t origin) const {
  if (!byPolarity[0] || !byPolarity[1]) return false;
  const std::optional<Payload>& best = byPolarity[betterSide(byPolarity)];
  if (!sureCommand(layouts_, best, kQuickMargin)) return false;
  Payload finished = *best;
  finishPayload(finished, signal, origin);
  return std::min(finished.snrDb, finished.snrAfterDb) >= kQuickSnrDb;
}

std::optional<Payload> PayloadDecoder::decode(const std::vector<float>& signal,
                                              std::uint64_t origin, double onset, double searchEnd,
                                              double level, std::optional<double> startSpread) {
  if (signal.empty() || level <= 0) return std::nullopt;
  prepare(signal, level);
  const double relativeOnset = onset - static_cast<double>(origin);
  // The run ends with the last block that was active: the last bit may reach
  // up to a block further.
  const double relativeEnd = searchEnd + onsetSlack_ - static_cast<double>(origin);

  // Activity is measured in blocks, and noise can open a run early: the first
  // bit begins a little before the onset or up to a few blocks after it.
  std::vector<Start>& starts = starts_;
  starts.clear();
  const double from = relativeOnset - (startSpread ? *startSpread : 2 * half_[0]);
  const double to = relativeOnset + (startSpread ? *startSpread : 3 * onsetSlack_ + half_[0]);
  const double rankingSpan = kRankingBits * 3 * half_[0];
  // The same stretch of time after each candidate (as many bits as would
  // fit, half of them 1s) ranks them; the few best are scored over the whole
  // stretch. A walk that can no longer reach the few best so far is left.
  const auto byScore = [](const Start& a, const Start& b) { return a.score > b.score; };
  // Ranks the starts, keeping the `kept` best of each polarity (or, with
  // none, the kStartsRescored best of both), each scored over the whole stretch.
  const auto rank = [&](int kept, int stride) {
    starts.clear();
    std::array<double, kStartsRescored> few[2];
    const std::size_t n = kept > 0 ? kept : kStartsRescored;
    few[0].fill(kNone), few[1].fill(kNone);
    const double spacing = 0.4 * half_[0];
    const auto walkFrom = [&](double t, int polarity) {
      auto& best = few[kept > 0 && polarity < 0 ? 1 : 0];
      Start start{t, polarity, kNone, startWalk(t)};
      walkOn(start.walk, polarity, std::min(relativeEnd, t + rankingSpan), best[n - 1]);
      if (!start.walk.abandoned) {
        start.score = walkScore(start.walk);
        if (start.score > best[n - 1]) {
          best[n - 1] = start.score;
          std::sort(best.begin(), best.begin() + n, std::greater<>());
        }
      }
      starts.push_back(start);
    };
    for (double t = from; t <= to; t += stride * spacing) {
      for (int polarity : {1, -1}) walkFrom(t, polarity);
    }
    // Coarsely spaced, the best of each polarity is looked for between its
    // neighbours too.
    if (stride > 1) {
      const std::size_t coarse = starts.size();
      for (std::size_t side = 0; side < 2 && side < coarse; ++side) {
        std::size_t top = side;
        for (std::size_t i = side; i < coarse; i += 2) {
          if (starts[i].score > starts[top].score) top = i;
        }
        if (starts[top].score == kNone) continue;
        for (int d = 1; d < stride; ++d) {
          for (const double t : {starts[top].time - d * spacing, starts[top].time + d * spacing}) {
            if (t >= from && t <= to) walkFrom(t, starts[top].polarity);
          }
        }
      }
    }
    if (kept > 0) {
      // The best of each polarity first.
      const auto positive = std::stable_partition(starts.begin(), starts.end(),
                                                  [](const Start& a) { return a.polarity > 0; });
      const std::size_t inPositive = std::min<std::size_t>(kept, positive - starts.begin());
      std::partial_sort(starts.begin(), starts.begin() + inPositive, positive, byScore);
      const std::size_t inNegative = std::min<std::size_t>(kept, starts.end() - positive);
      std::partial_sort(positive, positive + inNegative, starts.end(), byScore);
      std::move(positive, positive + inNegative, starts.begin() + inPositive);
      starts.resize(inPositive + inNegative);
    } else {
      const std::size_t rescored = std::min(kStartsRescored, starts.size());
      std::partial_sort(starts.begin(), starts.begin() + rescored, starts.end(), byScore);
      starts.resize(rescored);
    }
    // One start of each polarity is searched whatever its score; more are
    // searched best first, as they score over the whole stretch.
    if (kept == 1) return;
    for (Start& start : starts) {
      if (start.walk.abandoned) start.walk = startWalk(start.time), start.walk.abandoned = false;
      walkOn(start.walk, start.polarity, relativeEnd, kNone);
      start.score = walkScore(start.walk);
    }
    std::sort(starts.begin(), starts.end(), byScore);
  };
  // Inverted, a run of 0-bits is the same run half a period later, and a run
  // of 1-bits the same run one 0-bit later: only the other bits and the edges
  // tell the polarities apart. Both are searched, and the best reading of
  // each is kept: the other repetition decides between them.
  std::optional<Payload> byPolarity[2];
  // Any bits first, which is cheap: a clear reading that is a command is what
  // the commands' layouts would read too. Otherwise the layouts decide. And
  // first from the best start of each polarity with a narrow beam: a reading
  // that does not hold is read again from more starts with the wider beam.
  rank(1, kQuickStride);
  beamBits_ = kQuickBeamBits;
  readPolarities(starts, relativeEnd, false, byPolarity);
  beamBits_ = kBeamBits;
  if (!quickReadingHolds(byPolarity, signal, origin)) {
    byPolarity[0].reset();
    byPolarity[1].reset();
    rank(0, 1);
    readPolarities(starts, relativeEnd, false, byPolarity);
  }
  if (!sureCommand(layouts_, byPolarity[betterSide(byPolarity)], kSureMargin)) {
    byPolarity[0].reset();
    byPolarity[1].reset();
    readPolarities(starts, relativeEnd, true, byPolarity);
  }
  for (auto& payload : byPolarity) {
    if (payload) finishPayload(*payload, signal, origin);
  }
  if (!byPolarity[0] && !byPolarity[1]) return std::nullopt;
  const int better = betterSide(byPolarity);
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
  const double total = power(best->start, best->end);
  const auto snr = [&](double quiet) {
    return std::clamp(10 * std::log10(std::max(total - quiet, 1e-12) / std::max(quiet, 1e-12)),
                      -20.0, 99.0);
  };
  best->snrDb = snr(power(best->start - 200 * scale_, best->start - 40 * scale_));
  // After the stop level, as long a stretch of the silence that follows.
  best->snrAfterDb = snr(power(best->end + 40 * scale_, best->end + 200 * scale_));
  best->command = isCommandPayload(layouts_, best->bits);
  best->start += static_cast<double>(origin);
  best->end += static_cast<double>(origin);
}

// Viterbi over the lattice of (layout, bits sent, length so far), each state
// keeping its own re-timed clock; then a backward pass for the margins.
std::optional<Payload> PayloadDecoder::searchSequences(double t0, int polarity, double searchEnd,
                                                       bool margins) {
  const int lastLevel = forward(t0, polarity, searchEnd);
  const double cleanBit = level_ * 2 * half_[0];
  double unexplained = 0;
  End runnerUp;
  const End best = chooseEnd(searchEnd, lastLevel, cleanBit, &runnerUp, &unexplained);
  if (best.score == kNone || best.score <= 0) return std::nullopt;

  double weakestOwn = 0;  // the least bit-like bit
  Payload payload = traceBack(best, &weakestOwn);
  payload.start = t0;
  payload.polarity = polarity;
  const double span = payload.end - payload.start;
  payload.amplitude = (best.score + bias_ * span) / span;
  payload.fit = best.fit - bitLike(t0, -1);
  payload.cleanBit = cleanBit;
  if (!margins) return payload;

  double weakest = weakestMargin(best, runnerUp, payload.bits, searchEnd);
  // A layout that fixes every bit is believed only if nothing else fits better.
  const bool fixed = static_cast<int>(layouts_[best.layout].prefix.size()) == best.bits;
  weakest = fixed && unexplained > 0 ? 0 : weakest - unexplained;
  // Against the stretch's level rather than the path's own correlation, which
  // noise inflates by always picking the better of two waveforms.
  // A bit that hardly looks like one (what a layout's parity or length
  // forced onto a stretch that carried other bits) is no reading either.
  weakest = std::min(weakest, weakestOwn + kOwnBitAllowance * cleanBit);
  payload.confidence = cleanBit > 0 ? std::clamp(weakest / cleanBit, 0.0, 1.0) : 0.0;
  return payload;
}

// The forward pass: every layout's states level by level (bits sent), each
// kept only while within the beam of the best at its level. Returns the
// last level reached.
int PayloadDecoder::forward(double t0, int polarity, double searchEnd) {
  const int layouts = static_cast<int>(layouts_.size());
  for (int g = 0; g < layouts; ++g) {
    score_[at(g, 0)] = 0;
    clock_[at(g, 0)] = {t0, 0};
    first_[level(g, 0)] = last_[level(g, 0)] = 0;
    alive_[g] = constrained_ || g == layouts - 1;
    reached_[g] = 0;
  }
  int lastLevel = 0;
  const double beam = beamBits_ * level_ * 2 * half_[0];
  for (int i = 0; i < kLongestPayload; ++i) {
    // Only the levels a layout reaches are set, and read.
    for (int g = 0; g < layouts; ++g) {
      if (alive_[g]) reached_[g] = i + 1;
    }
    double levelBest = kNone;
    for (int g = 0; g < layouts; ++g) {
      if (!alive_[g]) continue;
      for (int k = first_[level(g, i)]; k <= last_[level(g, i)]; ++k) {
        levelBest = std::max(levelBest, score_[at(g, stateIndex(i, k))]);
      }
    }
    bool any = false;
    for (int g = 0; g < layouts; ++g) {
      if (!alive_[g]) continue;
      alive_[g] = extendLayout(g, i, polarity, levelBest - beam, searchEnd);
      any = any || alive_[g];
    }
    if (!any) break;
    lastLevel = i + 1;
  }
  return lastLevel;
}

// One layout's states of level i, each extended by a 0-bit and a 1-bit (or
// by the bit its layout fixes there). Whether any state was extended.
bool PayloadDecoder::extendLayout(int g, int i, int polarity, double floor, double searchEnd) {
  const PayloadLayout& layout = layouts_[g];
  int& first = first_[level(g, i + 1)];
  int& last = last_[level(g, i + 1)];
  first = 1, last = 0;  // none
  if (i >= layout.longest()) return false;
  const bool forced = i < static_cast<int>(layout.prefix.size());
  // The next level's states that the states of this one can reach hold no
  // score until a state within the beam reaches them.
  const int lo = first_[level(g, i)], hi = last_[level(g, i)];
  for (int k = lo + 1; k <= hi + 2; ++k) score_[at(g, stateIndex(i + 1, k))] = kNone;
  for (int k = lo; k <= hi; ++k) {
    const int s = at(g, stateIndex(i, k));
    if (k < hi) prefetchScored(clock_[s + 1], polarity);
    if (score_[s] < floor || clock_[s].time > searchEnd + 2 * half_[0]) {
      bitScore_[0][s] = bitScore_[1][s] = kNone;
      continue;
    }
    if (first > last) first = k + 1;
    last = k + 2;
    Clock nexts[2];
    double scores[2];
    scoreBits(clock_[s], polarity, scores, nexts);
    for (int b = 0; b < 2; ++b) {
      if (forced && layout.prefix[i] != '0' + b) {
        bitScore_[b][s] = kNone;
        continue;
      }
      bitScore_[b][s] = scores[b];
      const int to = at(g, stateIndex(i + 1, k + 1 + b));
      if (score_[s] + scores[b] > score_[to]) {
        score_[to] = score_[s] + scores[b];
        clock_[to] = nexts[b];
        bit_[to] = static_cast<std::uint8_t>(b);
      }
    }
  }
  return first <= last;
}

// A payload is followed by the stop level and silence: a state ends a
// payload only at a length its layout has, with its parity, and in time.
bool PayloadDecoder::isEnd(int g, int i, int k, double searchEnd) const {
  const PayloadLayout& layout = layouts_[g];
  const int s = at(g, stateIndex(i, k));
  return i <= reached_[g] && layout.ends[i] && (!layout.evenParity || (k - i) % 2 == 0) &&
         score_[s] != kNone && clock_[s].time <= searchEnd + half_[0];
}

// The best end of the command layouts, unless some other reading fits
// clearly better: then the payload is no command the accessory knows, and
// says so. A bit's worth of signal right after an end means the sequence
// ended too early, and costs it.
PayloadDecoder::End PayloadDecoder::chooseEnd(double searchEnd, int lastLevel, double cleanBit,
                                              End* runnerUp, double* unexplained) const {
  const int layouts = static_cast<int>(layouts_.size());
  std::array<End, kMostLayouts> ends{};
  for (int g = 0; g < layouts; ++g) {
    for (int n : kPayloadLengths) {
      if (n > lastLevel || n > reached_[g]) break;
      for (int k = first_[level(g, n)]; k <= last_[level(g, n)]; ++k) {
        if (!isEnd(g, n, k, searchEnd)) continue;
        const int s = at(g, stateIndex(n, k));
        const double fit = score_[s] - bitLike(clock_[s].time, 1);
        if (fit > ends[g].fit) ends[g] = {g, n, k, score_[s], fit};
      }
    }
  }
  End best;
  for (int g = 0; g + 1 < layouts; ++g) {
    if (ends[g].fit > best.fit)
      *runnerUp = best, best = ends[g];
    else if (ends[g].fit > runnerUp->fit)
      *runnerUp = ends[g];
  }
  // Any reading that fits better than the command's takes from its
  // certainty: a layout fixes some bits, and a layout alone (every request is
  // one) reads the same from anything.
  const End& free = ends[layouts - 1];
  *unexplained = free.fit == kNone || best.fit == kNone ? 0 : std::max(0.0, free.fit - best.fit);
  if (free.fit > best.fit + kUnknownLayoutBits * cleanBit) {
    best = free, *runnerUp = End{}, *unexplained = 0;
  }
  return best;
}

// The bits of the path to `end`, where it ends, and the score of its least
// bit-like bit.
Payload PayloadDecoder::traceBack(const End& end, double* weakestOwn) const {
  const int g = end.layout;
  Payload payload;
  payload.bits.assign(end.bits, '0');
  *weakestOwn = std::numeric_limits<double>::infinity();
  for (int i = end.bits, k = end.units; i > 0; --i) {
    const int b = bit_[at(g, stateIndex(i, k))];
    payload.bits[i - 1] = static_cast<char>('0' + b);
    k -= 1 + b;
    *weakestOwn = std::min(*weakestOwn, bitScore_[b][at(g, stateIndex(i - 1, k))]);
  }
  payload.end = clock_[at(g, stateIndex(end.bits, end.units))].time;
  return payload;
}

// Each bit's margin: the best sequence against the best one with that bit
// flipped, in units of the path's score; another command's layout is the
// alternative to the bits it fixes. Returns the weakest.
double PayloadDecoder::weakestMargin(const End& best, const End& runnerUp, const std::string& bits,
                                     double searchEnd) {
  const int g = best.layout;
  // Backward: the best way from each state of the layout to any of its ends.
  std::fill(backward_.begin() + at(g, 0), backward_.begin() + at(g + 1, 0), kNone);
  for (int i = reached_[g]; i >= 0; --i) {
    for (int k = first_[level(g, i)]; k <= last_[level(g, i)]; ++k) {
      const int s = at(g, stateIndex(i, k));
      if (score_[s] == kNone) continue;
      if (isEnd(g, i, k, searchEnd)) backward_[s] = 0;
      if (i == reached_[g]) continue;
      for (int b = 0; b < 2; ++b) {
        const double after = backward_[at(g, stateIndex(i + 1, k + 1 + b))];
        if (after != kNone && bitScore_[b][s] != kNone) {
          backward_[s] = std::max(backward_[s], bitScore_[b][s] + after);
        }
      }
    }
  }
  double weakest = runnerUp.fit == kNone ? best.score : std::max(0.0, best.fit - runnerUp.fit);
  for (int i = 0; i < best.bits; ++i) {
    const int flipped = bits[i] == '1' ? 0 : 1;
    double alternative = kNone;
    for (int k = first_[level(g, i)]; k <= last_[level(g, i)]; ++k) {
      const int s = at(g, stateIndex(i, k));
      if (score_[s] == kNone || bitScore_[flipped][s] == kNone) continue;
      const double after = backward_[at(g, stateIndex(i + 1, k + 1 + flipped))];
      if (after == kNone) continue;
      alternative = std::max(alternative, score_[s] + bitScore_[flipped][s] + after);
    }
    if (alternative != kNone) weakest = std::min(weakest, std::max(0.0, best.score - alternative));
  }
  return weakest;
}

}  // namespace nimbara::receiver
