/* A timeline of commands: each starts at its own frame of one stream, so that
 * the times between them hold to the sample, and the whole plays through the
 * playback engine as one transmission. */
#ifndef NIMBARA_API_TIMELINE_H
#define NIMBARA_API_TIMELINE_H

#include <nimbara/api/command.h>
#include <nimbara/export.h>

#ifdef __cplusplus
#include <cstdint>
#include <vector>

namespace nimbara {

/** A command and the frame of the timeline its transmission starts at. */
struct Cue {
  std::uint64_t startFrame = 0;
  Command command;
};

/** The timeline's interleaved stereo samples: each command's samples
 * (renderCommand) at its start, silence between, up to the end of the last
 * command's transmission. Throws std::invalid_argument when there is no cue
 * or a cue starts before the transmission before it has ended. */
NIMBARA_API std::vector<std::int16_t> renderTimeline(const std::vector<Cue>& cues);

/** Renders the timeline and plays it on the current backend (playFrames): 0,
 * or the status of the failing platform call. Throws as renderTimeline. */
NIMBARA_API std::int32_t playTimeline(const std::vector<Cue>& cues);

}  // namespace nimbara
#endif

#endif
