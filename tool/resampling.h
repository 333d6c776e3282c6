// What the tool says about a sink that resamples the signal on its way out,
// with the one line of configuration that stops it.
#pragma once

#include <nimbara/platform/pulse_device.h>

#include <string>

namespace tool {

// "44100 Hz, exact" or "48000 Hz, resampled": the rate part of status and outputs.
std::string describeRate(const nimbara::platform::PulseDevice::PlaybackRate& rate);

// The warning for a sink that does not run at 44100 Hz (empty when it does):
// the rate it runs at and the fix for the server in use.
std::string resamplingWarning(const nimbara::platform::PulseDevice::PlaybackRate& rate);

}  // namespace tool
