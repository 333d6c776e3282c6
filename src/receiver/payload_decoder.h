// Decodes one payload (a command, its parameter and the parity bit) from a
// band-passed stretch of signal. Every bit is scored by correlating the signal
// with both bit waveforms, and a search over bit sequences finds the sequence
// of a valid payload length that explains the stretch best, re-timing each
// bit by a fraction of a sample so that clock error and speed changes are
// followed. Any bits are read first; a reading that is no sure command is
// searched again within the commands' layouts. Each bit's margin is how much
// worse the best sequence with that bit flipped fits.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "receiver/payload_layout.h"

namespace nimbara::receiver {

struct Payload {
  std::string bits;
  double start = 0;       // stream sample where the first bit begins
  double end = 0;         // stream sample where the last bit ends
  double confidence = 0;  // the weakest bit's margin, 0..1
  double amplitude = 0;   // the signal's correlation per sample
  double snrDb = 0;       // against the quiet before the payload
  double snrAfterDb = 0;  // against the quiet after it
  double fit = 0;         // the sequence's score: which of several readings is best
  double cleanBit = 0;    // the score of one clean 0-bit at this level
  bool command = false;   // the bits have a command's layout and even parity
  int polarity = 1;
  // The best reading with the other polarity, if any.
  std::shared_ptr<Payload> inverted;
  // The band-passed signal around the payload, from stream sample
  // `waveStart` on: what its repetition is added to when neither reads alone.
  std::vector<float> wave;
  std::uint64_t waveStart = 0;
};

class PayloadDecoder {
 public:
  explicit PayloadDecoder(double sampleRate);

  // `signal` holds band-passed samples from stream sample `origin` on. The
  // payload is looked for from about `onset` (where activity began) and must
  // end by `searchEnd`; `level` is the stretch's mean magnitude. With a
  // `startSpread`, the first bit begins no further than that from `onset`
  // (where another reading already put it).
  std::optional<Payload> decode(const std::vector<float>& signal, std::uint64_t origin,
                                double onset, double searchEnd, double level,
                                std::optional<double> startSpread = std::nullopt);

  // How many clean 0-bits worse `bits`, read from `start` with `polarity`,
  // fit the stretch than the best reading of any bits from there.
  double shortfall(const std::vector<float>& signal, std::uint64_t origin, double start,
                   int polarity, const std::string& bits, double level);

 private:
  void prepare(const std::vector<float>& signal, double level);

  static constexpr int kMostLayouts = 8;
  int at(int layout, int state) const { return layout * statesPerLayout_ + state; }

  // A bit's clock: where it begins, and how much longer than nominal the
  // sender's bits have lately been.
  struct Clock {
    double time;
    double stretch;
  };
  // A greedy walk from a start, bit by bit, always the better waveform:
  // resumable, so that a start ranked on part of the stretch is scored on the
  // rest without walking its first bits again.
  struct Walk {
    Clock clock{0, 0};
    double sum = 0, best = 0;
    double before = 0;  // what looks like a bit just before the start
    int bits = 0;
    bool abandoned = false;  // it could no longer score what it had to
  };
  struct Start {
    double time;
    int polarity;
    double score;
    Walk walk;
  };

  // The prefix sum at a fractional index, constant beyond both ends (the
  // last step interpolates to the end).
  double prefixAt(double t) const { return prefixWithin(std::clamp(t, 0.0, lastStep_)); }
  // The same for 0 <= u <= lastStep_ (a signed conversion is the cheaper one).
  double prefixWithin(double u) const {
    const auto i = static_cast<std::int64_t>(u);
    const double f = u - static_cast<double>(i);
    const double* p = prefix_.data() + i;
    return p[0] + f * (p[1] - p[0]);
  }
  // Correlation with a square period of half-length h starting at t
  // (relative to the signal's start).
  double correlation(double h, double t, int polarity) const {
    return polarity * (2 * prefixAt(t + h) - prefixAt(t) - prefixAt(t + 2 * h));
  }
  // The best re-timed correlation of each bit at the clock, less the costs,
  // and the clock of the bit that would follow it.
  void scoreBits(const Clock& clock, int polarity, double score[2], Clock next[2]) const;
  static std::size_t scoredSlot(const Clock& clock, int polarity);
  void prefetchScored(const Clock& clock, int polarity) const;
  struct Scored;
  void scoreBitsAfresh(const Clock& clock, int polarity, double score[2], Clock next[2],
                       Scored* keep) const;
  double bitLike(double t, int direction) const;
  bool quickReadingHolds(const std::optional<Payload> (&byPolarity)[2],
                         const std::vector<float>& signal, std::uint64_t origin) const;
  void finishPayload(Payload& payload, const std::vector<float>& signal,
                     std::uint64_t origin) const;
  void readPolarities(const std::vector<Start>& starts, double relativeEnd, bool constrained,
                      std::optional<Payload> (&byPolarity)[2]);
  void settleStart(std::optional<Payload>& payload, double relativeEnd, bool hasMargins);
  Walk startWalk(double t0) const;
  // Walks on while bits begin before `searchEnd`; abandons the walk as soon
  // as its score can no longer reach `floor`.
  void walkOn(Walk& walk, int polarity, double searchEnd, double floor) const;
  // The most that bits from `from` on, beginning before a walk's end, can add.
  struct Reach {
    double end;        // where the last bit may end
    std::size_t last;  // the excess's index there
  };
  Reach reachTo(double searchEnd) const;
  double reachable(const Reach& reach, double from, int bits) const;
  double walkScore(const Walk& walk) const { return walk.best - walk.before; }
  // The best sequence from t0; with `margins`, its bits' margins too.
  std::optional<Payload> searchSequences(double t0, int polarity, double searchEnd, bool margins);
  // Its steps.
  struct End {
    int layout = -1, bits = 0, units = 0;
    double score = -std::numeric_limits<double>::infinity();
    double fit = -std::numeric_limits<double>::infinity();
  };
  int forward(double t0, int polarity, double searchEnd);
  bool extendLayout(int layout, int level, int polarity, double floor, double searchEnd);
  bool isEnd(int layout, int bits, int units, double searchEnd) const;
  End chooseEnd(double searchEnd, int lastLevel, double cleanBit, End* runnerUp,
                double* unexplained) const;
  Payload traceBack(const End& end, double* weakestOwn) const;
  double weakestMargin(const End& best, const End& runnerUp, const std::string& bits,
                       double searchEnd);

  const double scale_;  // input samples per sample at 44100 Hz
  const double half_[2];
  const double step_;        // the re-timing allowed per bit
  const double onsetSlack_;  // how late after the onset the first bit may begin
  const std::vector<PayloadLayout> layouts_;
  const int statesPerLayout_;
  double beamBits_ = 0;      // how far behind the best a sequence is still followed
  bool constrained_ = true;  // searches follow the commands' layouts, or any bits only
  std::vector<double> prefix_;
  // Prefix sums of how far each sample's magnitude exceeds the bias: no bit
  // over a stretch scores more than that (bounds the walks).
  std::vector<double> excess_;
  double peak_ = 0;  // the largest such excess
  std::vector<Start> starts_;
  // The bits' scores at each clock met since the stretch was prepared: the
  // walks from neighbouring starts, the searches from a start and from its
  // twins one 0-bit either side, meet the same clocks again and again.
  struct Scored {
    std::uint64_t time = 0, stretch = 0;  // the clock's bits
    std::uint32_t stamp = 0;              // the preparation it belongs to
    int polarity = 0;
    double score[2] = {0, 0};
    Clock next[2] = {};
  };
  static constexpr int kScoredBits = 12;
  mutable std::vector<Scored> scored_;
  std::uint32_t stamp_ = 0;
  double lastStep_ = 0;  // the last index where prefix_ can interpolate
  double level_ = 0;
  double bias_ = 0;  // cost per sample covered: stops a payload in a tail
  double shiftCost_ = 0;

  // The lattice, per layout: state (bits sent i, length k in 0-bit units),
  // k in i..2i.
  std::vector<double> score_, backward_, bitScore_[2];
  std::vector<Clock> clock_;
  // Per layout and level: the first and last length whose state is set
  // (the others hold no score).
  std::vector<int> first_, last_;
  int level(int layout, int bits) const { return layout * (kLongestPayload + 2) + bits; }
  std::vector<char> alive_;   // per layout: some state still within the beam
  std::vector<int> reached_;  // per layout: the last level whose states are set
  std::vector<std::uint8_t> bit_;
};

}  // namespace nimbara::receiver
