// Burst detection and decoding, the receiver's two lower steps.
#pragma once

#include <nimbara/receiver/receiver.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nimbara::receiver {

// One stretch of activity, decoded as far as it goes.
struct Burst {
  std::uint64_t startSample = 0;         // onset of the payload (or of the burst)
  std::uint64_t endSample = 0;           // end of the payload's last bit
  double samplesPerReferenceSample = 1;  // input rate / 44100
  bool payload = false;                  // it holds a run of bits
  std::string bits;
};

// Finds runs of square-wave half-periods in the stream and decodes each run
// that is long enough to be a payload.
class BurstDetector {
 public:
  explicit BurstDetector(double sampleRate);

  // Mono samples; payloads that end among them are added to `ended`.
  void push(const float* samples, std::size_t count, std::vector<Burst>& ended);
  std::optional<Burst> finish();

  std::uint64_t samplesSince(std::uint64_t sample) const { return count_ - sample; }
  // How long after a first repetition the second may still begin.
  std::uint64_t secondRepetitionWindow() const;

 private:
  struct Half {
    double start;  // fractional sample of the zero crossing that opens it
    float peak;    // largest magnitude inside it
  };

  std::optional<Burst> pushOne(float sample);
  std::optional<Burst> closeRun();

  const double scale_;  // input samples per sample at 44100 Hz
  const double shortestHalf_, longestHalf_;
  // DC removal
  double dc_ = 0;
  const double dcAlpha_;
  // smoothing: moving average over about half a short half-period
  std::vector<float> smoothRing_;
  std::size_t smoothPos_ = 0;
  double smoothSum_ = 0;
  // envelope, 1 ms moving average of |smoothed|, and its mean per 5 ms block
  std::vector<float> envelopeRing_;
  std::size_t envelopePos_ = 0;
  double envelopeSum_ = 0;
  std::vector<float> blockMeans_;
  std::size_t blockIndex_ = 0;
  const std::uint64_t blockLength_;
  double blockSum_ = 0;
  std::uint64_t blockFill_ = 0;
  float noiseFloor_ = 1e9f;
  float peak_ = 0;  // the envelope's recent maximum, slowly decaying
  const float peakDecay_;
  const double smoothScale_;    // 1 / the smoothing length
  const double envelopeScale_;  // 1 / the envelope length
  // zero crossings with hysteresis
  int polarity_ = 0;  // sign of the current half, 0 before the first
  float previous_ = 0;
  double lastZero_ = 0;
  double lastQuiet_ = 0;
  double regionStart_ = 0;  // where the signal last rose out of the quiet band
  bool quiet_ = true;
  float halfPeak_ = 0;
  std::vector<Half> run_;
  std::uint64_t count_ = 0;
};

// Whether `second` begins one stop and one silence after `first` ends.
bool followsAfterSilence(const Burst& first, const Burst& second);

// A transmission from its first repetition and, if it came, its second.
Transmission assemble(const Burst& first, const Burst* second);

}  // namespace nimbara::receiver
