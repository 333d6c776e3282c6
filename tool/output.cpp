// The audio output the tool plays on, and the checks around a transmission.
#include "output.h"

#include "resampling.h"

#include <cstdio>

namespace tool {

std::shared_ptr<nimbara::platform::Backend> chosenBackend(const Globals& globals) {
  try {
    auto backend = nimbara::platform::makeBackend(globals.device, globals.route);
    // Without the option each backend keeps its own default.
    if (globals.allowResampling && backend->setAllowResampling(true) != 0) {
      throw UsageError(std::string("--allow-resampling: the ") + backend->name() +
                       " output plays at 44100 Hz or not at all");
    }
    return backend;
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

Output openOutput(const Globals& globals) {
  if (globals.verbosity < 2) nimbara::setLogSink({});
  Output output;
  output.backend = chosenBackend(globals);
  std::string route;
  if (output.backend->routeName(&route) == NIMBARA_AUDIO_ERR_NO_SERVER) {
    throw std::runtime_error(
        "no audio server could be reached; use --device virtual to play without one");
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
  const bool file = std::string(output.backend->name()) == "wav";
  const std::string where = file ? "cannot write " + globals.device.substr(4) + ": " : "";
  // The library's text says resampling can be allowed; here is how.
  const std::string remedy = status == NIMBARA_AUDIO_ERR_RATE && !globals.allowResampling
                                 ? "; --allow-resampling plays it resampled"
                                 : "";
  throw std::runtime_error(where + nimbaraAudioStatusText(status) + " (status " +
                           std::to_string(status) + "); the command did not go out whole" + remedy);
}

bool readRate(const Output& output, nimbara::platform::PlaybackRate* rate) {
  const std::int32_t status = output.backend->playbackRate(rate);
  if (status == NIMBARA_AUDIO_ERR_NOT_SUPPORTED) *rate = {NIMBARA_SAMPLE_RATE, true, {}};
  return status == 0 || status == NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}

bool readLevel(const Output& output, nimbara::platform::OutputLevel* level) {
  const std::int32_t status = output.backend->outputLevel(level);
  if (status == NIMBARA_AUDIO_ERR_NOT_SUPPORTED) *level = {100.0, false};
  return status == 0 || status == NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
}

// An output that is muted, turned down or resampling loses the accessory.
void warnAboutLevel(const Output& output) {
  nimbara::platform::OutputLevel level;
  if (!readLevel(output, &level)) return;
  if (level.muted || level.volumePercent < 100.0) {
    std::fprintf(stderr, "nimbara: warning: the output is %s; the accessory needs full volume\n",
                 level.muted ? "muted" : "below full volume");
  }
  nimbara::platform::PlaybackRate rate;
  if (readRate(output, &rate)) std::fputs(resamplingWarning(rate).c_str(), stderr);
}

}  // namespace tool
