// outputs: every sink of the sound server, whether the presence rule sees
// headphones on it, and whether the signal reaches it unresampled.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "report.h"
#include "resampling.h"

namespace tool {

int runOutputs(const Globals& globals) {
  if (globals.verbosity < 2) nimbara::setLogSink({});
  if (globals.device != "pulse" && !globals.device.starts_with("pulse:")) {
    throw UsageError("outputs lists the sound server's sinks: use --device pulse");
  }
  nimbara::platform::PulseDevice server;
  std::vector<nimbara::platform::PulseDevice::SinkSummary> sinks;
  if (const std::int32_t status = server.listSinks(&sinks)) {
    throw std::runtime_error(status == NIMBARA_AUDIO_ERR_NO_SERVER
                                 ? "no audio server could be reached"
                                 : std::string("cannot list the sinks: ") +
                                       nimbaraAudioStatusText(status));
  }
  Json json = Json::array();
  for (const auto& sink : sinks) {
    // The library's own presence test, on this sink as the route.
    auto device = std::make_shared<nimbara::platform::PulseDevice>(std::string(), sink.name);
    nimbara::platform::setBackend(device);
    const bool present = isHeadsetPluggedIn();
    // The rate a sink runs at shows only while something plays on it.
    device->setPreferredSampleRate(44100.0);
    nimbara::platform::PulseDevice::PlaybackRate rate;
    rate.sinkRate = sink.rate;
    const bool probed = device->playbackRate(&rate) == 0;
    if (globals.json) {
      json.push_back(Json{{"name", sink.name},
                          {"description", sink.description},
                          {"port", sink.port},
                          {"present", present},
                          {"default", sink.isDefault},
                          {"rate", rate.sinkRate},
                          {"exact", probed && rate.exact}});
    } else if (globals.verbosity >= 0) {
      std::printf("%s %s: %s, %s, %s\n", sink.isDefault ? "*" : " ", sink.name.c_str(),
                  sink.route.c_str(), present ? "present" : "absent",
                  probed ? describeRate(rate).c_str() : "rate unknown");
    }
  }
  if (globals.json) std::printf("%s\n", json.dump().c_str());
  nimbara::platform::setBackend(nullptr);
  return 0;
}

}  // namespace tool
