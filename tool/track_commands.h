// Scent tracks in the tool: reading one with the tool's errors, rendering it
// whole, telling what was sent when, and following a film player.
#pragma once

#include <nimbara/track/track.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"

namespace tool {

// The track's cues; a UsageError ("file:line: ...") for a bad one.
std::vector<nimbara::TrackCue> loadTrack(const std::string& path);

// Whether render's words name a track file rather than a command.
bool namesTrack(const std::vector<std::string>& words);

// `render TRACK --out FILE`: the whole track as one WAV.
int runRenderTrack(const Globals& globals, const std::string& path, const std::string& out);

// One cue as it was sent: under --json its line ("cue", "sent", "line" and
// the command's fields), else a line of text. `sent` is Unix time in seconds.
void reportCue(const Globals& globals, const nimbara::TrackCue& cue, double sent);

// The current Unix time in seconds.
double unixNow();

// Reports each cue of a track that starts playing now, when its time comes,
// from a thread of its own: the lines come out while the track plays.
class CueAnnouncer {
 public:
  CueAnnouncer(const Globals& globals, std::vector<nimbara::TrackCue> cues);
  ~CueAnnouncer() { finish(false); }
  CueAnnouncer(const CueAnnouncer&) = delete;
  CueAnnouncer& operator=(const CueAnnouncer&) = delete;

  // The track has played whole (every cue left is reported at once) or
  // failed (nothing more is).
  void finish(bool played);

 private:
  void run();

  const Globals& globals_;
  const std::vector<nimbara::TrackCue> cues_;
  const double startUnix_;
  const std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool finished_ = false, played_ = false;
  std::thread thread_;
};

// `play TRACK --follow mpv:SOCKET`: each cue sent when the film reaches it.
int runFollow(const Globals& globals, const std::string& path, const std::string& follow);

}  // namespace tool
