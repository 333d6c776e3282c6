#include "nimbara/track/follower.h"

#include <algorithm>
#include <cmath>

namespace nimbara {
namespace {

// A position further than this from the reckoning is a jump.
constexpr double kJump = 0.5;

}  // namespace

TrackFollower::TrackFollower(std::vector<TrackCue> cues) : cues_(std::move(cues)) {}

void TrackFollower::place(double seconds) {
  next_ = static_cast<std::size_t>(
      std::lower_bound(cues_.begin(), cues_.end(), seconds,
                       [](const TrackCue& cue, double s) { return cue.start < s; }) -
      cues_.begin());
  placed_ = true;
}

void TrackFollower::position(double seconds, double now) {
  const std::optional<double> expected = reckon(now);
  if (!expected || std::fabs(seconds - *expected) > kJump) place(seconds);
  seconds_ = seconds;
  at_ = now;
}

void TrackFollower::paused(bool paused, double now) {
  if (paused == paused_) return;
  if (const auto here = reckon(now)) seconds_ = *here;
  at_ = now;
  paused_ = paused;
}

void TrackFollower::seeked() {
  placed_ = false;
}

std::optional<double> TrackFollower::reckon(double now) const {
  if (!placed_) return std::nullopt;
  return paused_ ? seconds_ : seconds_ + std::max(0.0, now - at_);
}

std::vector<TrackCue> TrackFollower::due(double now) {
  std::vector<TrackCue> cues;
  const std::optional<double> here = reckon(now);
  while (here && next_ < cues_.size() && cues_[next_].start <= *here) {
    cues.push_back(cues_[next_++]);
  }
  return cues;
}

std::optional<double> TrackFollower::nextDue() const {
  if (!placed_ || paused_ || next_ >= cues_.size()) return std::nullopt;
  return at_ + std::max(0.0, cues_[next_].start - seconds_);
}

}  // namespace nimbara
