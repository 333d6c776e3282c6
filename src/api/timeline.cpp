// A timeline of commands rendered into one stream and played as one
// transmission.
#include <nimbara/api/timeline.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/signal_format.h>

#include <algorithm>
#include <stdexcept>

namespace nimbara {

std::vector<std::int16_t> renderTimeline(const std::vector<Cue>& cues) {
  if (cues.empty()) throw std::invalid_argument("a timeline needs a cue");
  for (std::size_t i = 1; i < cues.size(); ++i) {
    const Cue& before = cues[i - 1];
    if (cues[i].startFrame < before.startFrame + commandFrames(before.command)) {
      throw std::invalid_argument("cue " + std::to_string(i + 1) +
                                  " starts before the one before it has finished");
    }
  }
  const Cue& last = cues.back();
  std::vector<std::int16_t> timeline(NIMBARA_CHANNELS *
                                     (last.startFrame + commandFrames(last.command)));
  for (const Cue& cue : cues) {
    // A command's last buffer ends in silence that the next cue may overlap.
    const auto samples = renderCommand(cue.command);
    const std::size_t at = NIMBARA_CHANNELS * cue.startFrame;
    std::copy_n(samples.begin(), std::min(samples.size(), timeline.size() - at),
                timeline.begin() + static_cast<std::ptrdiff_t>(at));
  }
  return timeline;
}

std::int32_t playTimeline(const std::vector<Cue>& cues) {
  const std::vector<std::int16_t> timeline = renderTimeline(cues);
  return playFrames(timeline.data(), timeline.size() / NIMBARA_CHANNELS);
}

}  // namespace nimbara
