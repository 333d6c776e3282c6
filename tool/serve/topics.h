// The service's MQTT topics and Home Assistant's discovery messages.
#pragma once

#include <string>
#include <vector>

#include "command_input.h"

namespace tool::serve {

// nimbara/ID/...: the service's own topics.
struct Topics {
  std::string id;               // the service's id, safe for a topic level
  std::string discoveryPrefix;  // homeassistant

  std::string availability() const { return "nimbara/" + id + "/availability"; }
  std::string output(const std::string& name, const std::string& leaf) const {
    return "nimbara/" + id + "/" + name + "/" + leaf;
  }
  std::string haStatus() const { return discoveryPrefix + "/status"; }
};

// The topic levels after nimbara/ID/OUTPUT/ that the service takes.
inline const std::vector<std::string>& inputLeaves() {
  static const std::vector<std::string> leaves = {"command", "light/set", "puff/press",
                                                  "spray/press", "length/set"};
  return leaves;
}

struct RetainedMessage {
  std::string topic;
  std::string payload;
};

// One Home Assistant device for the output: the light, the Puff and Spray
// buttons, the length, presence and route; each config retained.
std::vector<RetainedMessage> discoveryMessages(const Topics& topics, const std::string& output,
                                               const std::string& version);

// The light's shortest and longest flash, in seconds, as Home Assistant
// sends them for "short" and "long".
constexpr int kFlashShortSeconds = 1;
constexpr int kFlashLongSeconds = 5;

}  // namespace tool::serve
