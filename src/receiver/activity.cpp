#include "receiver/activity.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "receiver/frame_geometry.h"

namespace nimbara::receiver {
namespace {

// A pair of blocks counts as active this far above the noise floor (the
// floor is a minimum, about three quarters of the mean noise). The comb below
// doubles white noise but triples either bit, so at 3 dB SNR the signal still
// stands clear of it.
constexpr double kAboveFloor = 2.5;
constexpr double kSilence = 1e-7;  // about -70 dBFS of comb energy
constexpr int kHangoverBlocks = 2;
constexpr int kWarmUpBlocks = 8;
constexpr double kFloorDoublingSeconds = 0.25;

}  // namespace

ActivityGate::ActivityGate(double sampleRate, int channels)
    : channels_(channels),
      blockLength_(std::max<std::size_t>(8, std::lround(sampleRate / 1000))),
      lag_(std::max<std::size_t>(1, std::lround(13 * sampleRate / kReferenceRate))),
      longestRun_(static_cast<std::uint64_t>(0.35 * sampleRate)),
      history_(channels, std::vector<float>(lag_ + blockLength_, 0.0f)),
      sampleRise_(std::exp2(1 / (kFloorDoublingSeconds * sampleRate))),
      blockRise_(std::pow(sampleRise_, static_cast<double>(blockLength_))) {}

// The energy of x[n] - x[n - lag]: a comb whose delay of 13 samples passes
// both bits' fundamentals alike (a long run of 1-bits must not fall below the
// floor), whose zero at DC removes offsets, hum and most of the rumble, and
// which vectorises.
bool ActivityGate::pushBlock(const float* const* channels, std::size_t count, ActivityRun* ended) {
  double energy = 0;
  for (int c = 0; c < channels_; ++c) {
    // The last `lag_` samples of the block before, then this block's.
    float* past = history_[c].data();
    std::memcpy(past + lag_, channels[c], count * sizeof(float));
    // Eight sums at a time, in two vectors of four (the width every x86-64
    // has: a wider one is kept in memory, and each sum waits on a store).
    using Four = float __attribute__((vector_size(4 * sizeof(float))));
    Four low = {}, high = {};
    const auto squares = [&](std::size_t at) {
      Four now, then;
      std::memcpy(&now, past + lag_ + at, sizeof now);
      std::memcpy(&then, past + at, sizeof then);
      const Four d = now - then;
      return d * d;
    };
    std::size_t n = 0;
    for (; n + 8 <= count; n += 8) {
      low += squares(n);
      high += squares(n + 4);
    }
    if (n + 4 <= count) low += squares(n), n += 4;
    float lanes[8];
    std::memcpy(lanes, &low, sizeof low);
    std::memcpy(lanes + 4, &high, sizeof high);
    for (; n < count; ++n) {
      const float d = past[lag_ + n] - past[n];
      lanes[n % 8] += d * d;
    }
    energy += ((lanes[0] + lanes[4]) + (lanes[1] + lanes[5])) +
              ((lanes[2] + lanes[6]) + (lanes[3] + lanes[7]));
    // Keep the last `lag_` samples for the next block.
    std::memmove(past, past + count, lag_ * sizeof(float));
  }
  energy /= static_cast<double>(count);

  smoothed_ = floor_ < 0 ? energy : 0.75 * smoothed_ + 0.25 * energy;
  const double rise = count == blockLength_ ? blockRise_ : std::pow(sampleRise_, count);
  floor_ = floor_ < 0 ? smoothed_ : std::min(smoothed_, floor_ * rise);
  // The floor needs a few blocks before it means anything.
  const bool active =
      ++blocksSeen_ > kWarmUpBlocks && energy > std::max(kAboveFloor * floor_, kSilence);

  const std::uint64_t blockStart = position_;
  position_ += count;
  bool closed = false;
  if (active) {
    if (!active_) {
      run_.start = blockStart;
      run_.blockEnergy.clear();
      active_ = true;
    }
    // Quiet blocks inside a run are kept: they mark its dips.
    while (quietBlocks_ > 0) {
      run_.blockEnergy.push_back(0.0f);
      --quietBlocks_;
    }
    run_.blockEnergy.push_back(static_cast<float>(energy));
    run_.end = position_;
    if (run_.end - run_.start >= longestRun_) closed = closeRun(ended);
  } else if (active_ && ++quietBlocks_ > kHangoverBlocks) {
    closed = closeRun(ended);
  }
  previous_ = energy;
  previousCount_ = count;
  return closed;
}

bool ActivityGate::finish(ActivityRun* ended) {
  return active_ && closeRun(ended);
}

bool ActivityGate::closeRun(ActivityRun* ended) {
  active_ = false;
  quietBlocks_ = 0;
  *ended = std::move(run_);
  run_ = {};
  return true;
}

}  // namespace nimbara::receiver
