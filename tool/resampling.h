// What the tool says about an output that resamples the signal on its way out,
// with the configuration that stops it.
#pragma once

#include <nimbara/platform/backend.h>

#include <string>

namespace tool {

// "44100 Hz, exact" or "48000 Hz, resampled": the rate part of status and outputs.
std::string describeRate(const nimbara::platform::PlaybackRate& rate);

// The warning for an output that does not run at 44100 Hz (empty when it
// does): the rate it runs at and the backend's way to allow 44100 Hz.
std::string resamplingWarning(const nimbara::platform::PlaybackRate& rate);

}  // namespace tool
