// play: a timeline of scents from a track (WebVTT, or a cue file of
// "SECONDS VERB ARGS..." lines), each starting at its time on the output's clock.
// The library renders the whole timeline and plays it as one transmission
// through its playback engine, so the times hold to the sample.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "track_commands.h"

namespace tool {

int runPlay(const Globals& globals, const std::string& cuePath) {
  const std::vector<nimbara::TrackCue> cues = loadTrack(cuePath);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const std::vector<std::int16_t> timeline = nimbara::renderTrack(cues);
  const Output output = openOutput(globals);
  checkPresence(globals);
  warnAboutLevel(output);
  for (const auto& cue : cues) {
    char at[32];
    std::snprintf(at, sizeof at, "%.3f s", cue.start);
    trace(globals, std::string("cue at ") + at + ": " + nimbara::describeCommand(cue.command));
  }
  CueAnnouncer announcer(globals, cues);
  const std::int32_t status =
      nimbara::playFrames(timeline.data(), timeline.size() / NIMBARA_CHANNELS);
  nimbara::platform::waitUntilIdle();
  announcer.finish(status == 0);
  if (status != 0) failedOutput(globals, output, status);
  return 0;
}

}  // namespace tool
