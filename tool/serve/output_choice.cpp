#include "output_choice.h"

#include <nimbara/nimbara.h>

#include <cstring>
#include <set>
#include <stdexcept>

#include "../commands.h"

namespace tool::serve {

std::string topicLevel(const std::string& name) {
  std::string level = name;
  for (char& c : level) {
    const bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-';
    if (!safe) c = '_';
  }
  return level.empty() ? "_" : level;
}

std::string outputName(const std::string& device) {
  if (device.starts_with("pulse:")) return topicLevel(device.substr(6));
  if (device.starts_with("wav:")) {
    std::string file = device.substr(
        device.find_last_of('/') == std::string::npos ? 4 : device.find_last_of('/') + 1);
    if (file.ends_with(".wav")) file.resize(file.size() - 4);
    return topicLevel(file);
  }
  return topicLevel(device);
}

std::vector<ServedOutput> chooseOutputs(const std::vector<std::string>& devices,
                                        const std::string& route) {
  std::vector<std::string> chosen = devices;
#ifdef NIMBARA_TOOL_PULSE
  if (chosen.empty()) {
    nimbara::platform::PulseDevice server;
    std::vector<nimbara::platform::PulseDevice::SinkSummary> sinks;
    if (server.listSinks(&sinks) != 0) {
      throw std::runtime_error("no audio server could be reached; name outputs with --device");
    }
    for (const auto& sink : sinks) {
      if (presenceOf(*nimbara::platform::makeBackend("pulse:" + sink.name)).present) {
        chosen.push_back("pulse:" + sink.name);
      }
    }
    if (chosen.empty()) chosen.push_back("pulse");
  }
#else
  if (chosen.empty()) chosen.push_back("virtual");
#endif
  std::vector<ServedOutput> outputs;
  std::set<std::string> names;
  for (const auto& device : chosen) {
    ServedOutput output{device, outputName(device), nullptr};
    if (!names.insert(output.name).second) {
      throw UsageError("two outputs would share the topic name \"" + output.name + "\"");
    }
    try {
      output.backend = nimbara::platform::makeBackend(device, route);
    } catch (const std::invalid_argument& e) {
      throw UsageError(e.what());
    }
    outputs.push_back(std::move(output));
  }
  return outputs;
}

Presence presenceOf(nimbara::platform::Backend& backend) {
  Presence presence;
  if (backend.routeName(&presence.route) != 0) return {};
  // The library's presence rule, on this output's route rather than the
  // current backend's.
  presence.present = presence.route.find("HeadsetInOut") != std::string::npos ||
                     presence.route.find("Headphone") != std::string::npos;
  return presence;
}

}  // namespace tool::serve
