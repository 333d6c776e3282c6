// What an output that plays into memory or into a file reports of itself: one
// output, the default, at exactly the signal's rate and at full level.
#pragma once

#include <nimbara/platform/backend.h>
#include <nimbara/signal/signal_format.h>

#include <string>
#include <utility>
#include <vector>

namespace nimbara::platform::detail {

// The backend's one output, on the route it reports.
inline std::int32_t listSimulatedOutput(Backend& backend, std::string name, std::string description,
                                        std::vector<OutputInfo>* outputs) {
  OutputInfo output;
  output.name = std::move(name);
  output.description = std::move(description);
  if (const std::int32_t status = backend.routeName(&output.route)) return status;
  output.isDefault = true;
  output.rate = NIMBARA_SAMPLE_RATE;
  output.exact = true;
  outputs->assign(1, std::move(output));
  return NIMBARA_AUDIO_OK;
}

// Full and unmuted.
inline std::int32_t simulatedLevel(OutputLevel* level) {
  *level = {100.0, false};
  return NIMBARA_AUDIO_OK;
}

// The signal's own rate: nothing resamples it.
inline std::int32_t simulatedRate(PlaybackRate* rate) {
  *rate = {NIMBARA_SAMPLE_RATE, true, {}};
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::detail
