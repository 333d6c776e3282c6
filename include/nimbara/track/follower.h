/* Following a player along a track: told where the player is, whether it is
 * paused and when it jumps, the follower says which cues fall due and when the
 * next one will. It does no input or output of its own, so that every front
 * end that follows a player (mpv's socket, a browser's video element) keeps
 * the same rules:
 *  - a cue falls due when the player's position reaches its start;
 *  - a pause holds the track where it is;
 *  - a jump (a seek, or a position that disagrees with the clock by more than
 *    half a second) places the track at the new position: cues jumped over
 *    are not sent, a cue at the very position is;
 *  - the first position the follower hears places the track too.
 * Times are seconds on any monotonic clock the caller keeps. */
#ifndef NIMBARA_TRACK_FOLLOWER_H
#define NIMBARA_TRACK_FOLLOWER_H

#include <nimbara/export.h>

#ifdef __cplusplus
#include <nimbara/track/track.h>

#include <cstddef>
#include <optional>
#include <vector>

namespace nimbara {

class NIMBARA_API TrackFollower {
 public:
  explicit TrackFollower(std::vector<TrackCue> cues);

  /** The player is at `seconds` into the film at time `now`. */
  void position(double seconds, double now);
  /** The player paused or went on at time `now`. */
  void paused(bool paused, double now);
  /** The player jumped: the next position places the track. */
  void seeked();

  /** The cues due at `now`, in order; each is returned once. */
  std::vector<TrackCue> due(double now);
  /** When the next cue falls due if the player plays on; none while paused,
   * seeking, before the first position, or after the last cue. */
  std::optional<double> nextDue() const;
  /** The player's position at `now` as the follower reckons it. */
  std::optional<double> reckon(double now) const;

  const std::vector<TrackCue>& cues() const { return cues_; }
  /** The index of the next cue to send. */
  std::size_t next() const { return next_; }

 private:
  void place(double seconds);

  std::vector<TrackCue> cues_;
  std::size_t next_ = 0;
  bool placed_ = false;
  bool paused_ = false;
  double seconds_ = 0;  // the position last heard...
  double at_ = 0;       // ...and when
};

}  // namespace nimbara
#endif

#endif
