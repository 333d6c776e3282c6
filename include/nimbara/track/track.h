/* Scent tracks: commands at times along a film, a game or a show.
 *
 * A track is a WebVTT file (as any subtitle editor writes one, of kind
 * "metadata"), each cue's text one command: the tool's words
 * ("puff orange --time 300") or the command's field map as JSON
 * ({"command": "puff", "red": 255, ...}). Cue identifiers, cue settings and
 * NOTE, STYLE and REGION blocks are allowed and ignored; a cue's end time is
 * ignored too (a command lasts as long as its transmission). A plain cue file,
 * "SECONDS COMMAND WORDS..." a line with "#" comments, is read as well.
 *
 * Overlaps are refused: a cue that starts before the transmission of the cue
 * before it has finished is an error, the same in every front end, so that
 * every command goes out at the time its cue says. */
#ifndef NIMBARA_TRACK_TRACK_H
#define NIMBARA_TRACK_TRACK_H

#include <nimbara/export.h>

#ifdef __cplusplus
#include <nimbara/api/timeline.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace nimbara {

/** One cue of a timeline (its start frame on the signal's clock, start x
 * 44100 rounded, and its command), with when and where it is written. */
struct TrackCue : Cue {
  /** Seconds from the start of the track. */
  double start = 0;
  /** The file line of the cue's text. */
  int line = 0;
  /** The cue's text, as written (lines joined by "\n"). */
  std::string text;
};

/** A track that cannot be read as written: the message is
 * "NAME:LINE: what is wrong", or "NAME: what is wrong" for the whole file. */
class NIMBARA_API TrackError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/** The cues of a track's text, in order of time. `name` starts the error
 * messages (a file's path). The text is WebVTT when it starts with "WEBVTT"
 * or the name ends in ".vtt", else a cue file. Throws TrackError for a malformed file, a cue
 * whose text is not a command, overlapping cues or a track without cues. */
NIMBARA_API std::vector<TrackCue> parseTrack(const std::string& text, const std::string& name);

/** parseTrack on a file's contents; std::runtime_error when it cannot be read. */
NIMBARA_API std::vector<TrackCue> readTrack(const std::string& path);

/** The command a cue's text stands for: its words, or its JSON field map.
 * Throws std::invalid_argument with a one-line message. */
NIMBARA_API Command cueCommand(const std::string& text);

/** Interleaved stereo frames from the start of the track to the end of the
 * last cue's transmission. */
NIMBARA_API std::uint64_t trackFrames(const std::vector<TrackCue>& cues);

/** The whole track as one signal: each cue's samples at its start frame and
 * silence between them, interleaved stereo, trackFrames() frames. */
NIMBARA_API std::vector<std::int16_t> renderTrack(const std::vector<TrackCue>& cues);

}  // namespace nimbara
#endif

#endif
