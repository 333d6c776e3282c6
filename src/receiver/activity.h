// The receiver's always-on step: a cheap measure of signal energy per block
// of about a millisecond, and the runs of blocks that stand out of the noise
// floor. Only those runs are decoded, so this is the only work done on every
// input sample.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nimbara::receiver {

// A stretch of activity, in input samples of the whole stream.
struct ActivityRun {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::vector<float> blockEnergy;  // one per block from `start`
};

class ActivityGate {
 public:
  ActivityGate(double sampleRate, int channels);

  // Planar channels of `count` samples each (count <= blockLength()).
  // Returns whether a run ended with this block; it is then in *ended.
  bool pushBlock(const float* const* channels, std::size_t count, ActivityRun* ended);
  // The run still open at the end of the stream, if any.
  bool finish(ActivityRun* ended);

  std::size_t blockLength() const { return blockLength_; }
  // Runs longer than this are cut, so that memory stays bounded.
  std::uint64_t longestRun() const { return longestRun_; }

 private:
  bool closeRun(ActivityRun* ended);

  const int channels_;
  const std::size_t blockLength_;
  const std::size_t lag_;  // the comb's delay: 13 samples at 44100 Hz
  const std::uint64_t longestRun_;
  std::vector<std::vector<float>>
      history_;  // per channel: the last `lag_` samples, then room for a block
  const double sampleRise_, blockRise_;  // how fast the floor may rise
  double floor_ = -1;                    // slowly rising minimum of smoothed energies
  double smoothed_ = 0;
  int blocksSeen_ = 0;
  double previous_ = 0;  // the energy of the block before
  std::size_t previousCount_ = 0;
  std::uint64_t position_ = 0;  // stream sample at the start of the next block
  bool active_ = false;
  int quietBlocks_ = 0;
  ActivityRun run_;
};

}  // namespace nimbara::receiver
