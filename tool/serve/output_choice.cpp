#include "output_choice.h"

#include <nimbara/nimbara.h>

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

namespace {

// The default backend's outputs where the presence rule sees headphones, or
// the default output when it sees them on none.
std::vector<std::string> outputsWithHeadphones(const std::string& route) {
  const std::string scheme = nimbara::platform::defaultBackendName();
  std::vector<nimbara::platform::OutputInfo> outputs;
  const std::int32_t status = nimbara::platform::makeBackend(scheme, route)->listOutputs(&outputs);
  if (status == NIMBARA_AUDIO_ERR_NO_SERVER) {
    throw std::runtime_error("no audio server could be reached; name outputs with --device");
  }
  if (status != NIMBARA_AUDIO_OK) {
    throw std::runtime_error(std::string("cannot list the outputs: ") +
                             nimbaraAudioStatusText(status) + "; name outputs with --device");
  }
  std::vector<std::string> chosen;
  for (const auto& output : outputs) {
    if (!nimbara::routeNamesHeadset(output.route)) continue;
    // A backend with a single output lists it under its own scheme.
    chosen.push_back(output.name == scheme ? scheme : scheme + ":" + output.name);
  }
  if (chosen.empty()) chosen.push_back(scheme);
  return chosen;
}

}  // namespace

std::vector<ServedOutput> chooseOutputs(const std::vector<std::string>& devices,
                                        const std::string& route) {
  std::vector<std::string> chosen = devices;
  if (chosen.empty()) chosen = outputsWithHeadphones(route);
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
  presence.present = nimbara::routeNamesHeadset(presence.route);
  return presence;
}

}  // namespace tool::serve
