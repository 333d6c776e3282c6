// The audio output the tool plays on, and the checks around a transmission.
#include "output.h"

#include "resampling.h"

#include <cstdio>

namespace tool {

Output openOutput(const Globals& globals) {
  if (globals.verbosity < 2) nimbara::setLogSink({});
  Output output;
  try {
    output.backend = nimbara::platform::makeBackend(globals.device, globals.route);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
  output.virtualDevice =
      std::dynamic_pointer_cast<nimbara::platform::VirtualDevice>(output.backend);
#ifdef NIMBARA_TOOL_PULSE
  if (std::dynamic_pointer_cast<nimbara::platform::PulseDevice>(output.backend)) {
    output.pulse = output.backend;
  }
#endif
  output.wav = std::dynamic_pointer_cast<nimbara::platform::WavDevice>(output.backend);
  if (output.pulse) {
    std::string route;
    if (output.pulse->routeName(&route) == NIMBARA_AUDIO_ERR_NO_SERVER) {
      throw std::runtime_error(
          "no audio server could be reached; use --device virtual to play without one");
    }
  }
  nimbara::platform::setBackend(output.backend);
  return output;
}

std::string routeOf() {
  char route[512];
  return nimbaraAudioSessionCopyRouteName(route, sizeof route) == 0 ? route : "";
}

std::shared_ptr<nimbara::NimbaraProtocol> checkPresence(const Globals& globals) {
  nimbara::setRunLoopPause({});
  auto protocol = nimbara::NimbaraSDK::nimbara().nimbaraProtocol();
  if (globals.skipPrecheck) protocol->setPreCheck(true);
  try {
    protocol->preCheckDevice();
  } catch (const nimbara::NimbaraException&) {
    throw NoDevice("No device. The audio route \"" + routeOf() +
                   "\" has no headphones plugged in (use --skip-precheck to send anyway)");
  }
  return protocol;
}

void failedOutput(const Globals& globals, const Output& output, std::int32_t status) {
  const std::string where = output.wav ? "cannot write " + globals.device.substr(4) + ": " : "";
  throw std::runtime_error(where + nimbaraAudioStatusText(status) + " (status " +
                           std::to_string(status) + "); the command did not go out whole");
}

bool readRate(const Output& output, nimbara::platform::PulseDevice::PlaybackRate* rate) {
#ifdef NIMBARA_TOOL_PULSE
  return output.pulse &&
         static_cast<nimbara::platform::PulseDevice&>(*output.pulse).playbackRate(rate) == 0;
#else
  (void)output;
  (void)rate;
  return false;
#endif
}

bool readLevel(const Output& output, nimbara::platform::PulseDevice::OutputLevel* level) {
#ifdef NIMBARA_TOOL_PULSE
  return output.pulse &&
         static_cast<nimbara::platform::PulseDevice&>(*output.pulse).outputLevel(level) == 0;
#else
  (void)output;
  (void)level;
  return false;  // a build without the sound-server backend
#endif
}

// A sound server output that is muted, turned down or resampling loses the
// accessory.
void warnAboutLevel(const Output& output) {
  nimbara::platform::PulseDevice::OutputLevel level;
  if (!readLevel(output, &level)) return;
  if (level.muted || level.volumePercent < 100.0) {
    std::fprintf(stderr, "nimbara: warning: the output is %s; the accessory needs full volume\n",
                 level.muted ? "muted" : "below full volume");
  }
  nimbara::platform::PulseDevice::PlaybackRate rate;
  if (readRate(output, &rate)) std::fputs(resamplingWarning(rate).c_str(), stderr);
}

}  // namespace tool
