#include "resampling.h"

namespace tool {

std::string describeRate(const nimbara::platform::PulseDevice::PlaybackRate& rate) {
  return std::to_string(rate.sinkRate) + " Hz, " + (rate.exact ? "exact" : "resampled");
}

std::string resamplingWarning(const nimbara::platform::PulseDevice::PlaybackRate& rate) {
  if (rate.exact) return "";
  std::string text = "nimbara: warning: the sink runs at " + std::to_string(rate.sinkRate) +
                     " Hz, so the 44100 Hz signal is resampled on its way out and the accessory "
                     "may not hear it; ";
  if (rate.pipewire) {
    text +=
        "let PipeWire run at 44100 Hz with this line in "
        "~/.config/pipewire/pipewire.conf.d/44100.conf, then restart PipeWire:\n"
        "  context.properties = { default.clock.allowed-rates = [ 44100 48000 ] }\n";
  } else {
    text +=
        "let PulseAudio run at 44100 Hz with this line in ~/.config/pulse/daemon.conf, then "
        "restart it (pulseaudio -k):\n"
        "  default-sample-rate = 44100\n";
  }
  return text;
}

}  // namespace tool
