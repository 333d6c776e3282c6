// Reading a track's text into timed cue texts, before their commands are
// known: WebVTT, or the plain "SECONDS COMMAND" cue file.
#pragma once

#include <string>
#include <vector>

namespace nimbara::track {

struct CueText {
  double start = 0;
  int line = 0;
  std::string text;
};

// A message for one line of the track: "what" is written at `line`.
struct LineError {
  int line;
  std::string what;
};

// The timed texts of a WebVTT file (it starts with "WEBVTT"); throws LineError.
std::vector<CueText> webVttCues(const std::string& text);

// The timed texts of a cue file, "SECONDS COMMAND WORDS..." a line, "#" to
// the end of a line a comment (a "#rrggbb" colour stays); throws LineError.
std::vector<CueText> cueFileCues(const std::string& text);

// Whether the text is a WebVTT file.
bool isWebVtt(const std::string& text);

}  // namespace nimbara::track
