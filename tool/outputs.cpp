// outputs: every output of the chosen backend, whether the presence rule sees
// headphones on it, and whether the signal reaches it unresampled.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "resampling.h"

namespace tool {
namespace {

// An output the backend did not probe (ALSA opens only its own PCM) has no
// route: its description stands in.
std::string shownRoute(const nimbara::platform::OutputInfo& output) {
  if (!output.route.empty()) return output.route;
  return output.description.empty() ? "not probed" : output.description + " (not probed)";
}

}  // namespace

int runOutputs(const Globals& globals) {
  if (globals.verbosity < 2) nimbara::setLogSink({});
  // Every output of the backend, whichever one of them --device names.
  const auto backend = chosenBackend(globals);
  std::vector<nimbara::platform::OutputInfo> outputs;
  if (const std::int32_t status = backend->listOutputs(&outputs)) {
    throw std::runtime_error(status == NIMBARA_AUDIO_ERR_NO_SERVER
                                 ? "no audio server could be reached"
                                 : std::string("cannot list the outputs: ") +
                                       nimbaraAudioStatusText(status));
  }
  Json json = Json::array();
  for (const auto& output : outputs) {
    const bool present = nimbara::routeNamesHeadset(output.route);
    const nimbara::platform::PlaybackRate rate{output.rate, output.exact, {}};
    if (globals.json) {
      json.push_back(Json{{"name", output.name},
                          {"description", output.description},
                          {"port", output.port},
                          {"present", present},
                          {"default", output.isDefault},
                          {"rate", output.rate != 0 ? Json(output.rate) : Json(nullptr)},
                          {"exact", output.exact}});
    } else if (globals.verbosity >= 0) {
      std::printf("%s %s: %s, %s, %s\n", output.isDefault ? "*" : " ", output.name.c_str(),
                  shownRoute(output).c_str(), present ? "present" : "absent",
                  output.rate != 0 ? describeRate(rate).c_str() : "rate unknown");
    }
  }
  if (globals.json) std::printf("%s\n", json.dump().c_str());
  return 0;
}

}  // namespace tool
