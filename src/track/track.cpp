// A track's cues with their commands, checked against each other, and the
// whole track rendered as one signal.
#include "nimbara/track/track.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "nimbara/signal/signal_format.h"
#include "track/track_text.h"

namespace nimbara {
namespace {

std::string at(const std::string& name, int line) {
  return name + ":" + std::to_string(line) + ": ";
}

// A message stays one line whatever the track quotes back into it.
std::string oneLine(std::string message) {
  std::replace_if(
      message.begin(), message.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
  return message;
}

// Every command must go out at its cue's time: a cue may not start while the
// transmission before it still plays.
void refuseOverlaps(const std::vector<TrackCue>& cues, const std::string& name) {
  for (std::size_t i = 1; i < cues.size(); ++i) {
    const TrackCue& before = cues[i - 1];
    const std::uint64_t free = before.startFrame + commandFrames(before.command);
    if (cues[i].startFrame < free) {
      char why[160];
      std::snprintf(why, sizeof why,
                    "starts at %.3f s, before the %s of line %d has finished (at %.3f s)",
                    cues[i].start, before.command.verb.c_str(), before.line,
                    static_cast<double>(free) / static_cast<double>(NIMBARA_SAMPLE_RATE));
      throw TrackError(at(name, cues[i].line) + why);
    }
  }
}

}  // namespace

std::vector<TrackCue> parseTrack(const std::string& text, const std::string& name) {
  std::vector<track::CueText> texts;
  try {
    const bool webVtt = track::isWebVtt(text) || name.ends_with(".vtt");
    texts = webVtt ? track::webVttCues(text) : track::cueFileCues(text);
  } catch (const track::LineError& e) {
    throw TrackError(at(name, e.line) + oneLine(e.what));
  }
  std::vector<TrackCue> cues;
  for (const auto& t : texts) {
    TrackCue cue;
    cue.start = t.start;
    cue.startFrame = static_cast<std::uint64_t>(
        std::llround(t.start * static_cast<double>(NIMBARA_SAMPLE_RATE)));
    cue.line = t.line;
    cue.text = t.text;
    try {
      cue.command = cueCommand(t.text);
    } catch (const std::invalid_argument& e) {
      throw TrackError(at(name, t.line) + oneLine(e.what()));
    }
    cues.push_back(cue);
  }
  if (cues.empty()) throw TrackError(name + " holds no cue");
  std::stable_sort(cues.begin(), cues.end(), [](const TrackCue& a, const TrackCue& b) {
    return a.startFrame < b.startFrame;
  });
  refuseOverlaps(cues, name);
  return cues;
}

std::vector<TrackCue> readTrack(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  return parseTrack(text.str(), path);
}

std::uint64_t trackFrames(const std::vector<TrackCue>& cues) {
  std::uint64_t frames = 0;
  for (const auto& cue : cues) {
    frames = std::max(frames, cue.startFrame + commandFrames(cue.command));
  }
  return frames;
}

std::vector<std::int16_t> renderTrack(const std::vector<TrackCue>& cues) {
  return renderTimeline(std::vector<Cue>(cues.begin(), cues.end()));
}

}  // namespace nimbara
