// Home Assistant's entities of one output (the light, the Puff and Spray
// buttons, the length) as commands and retained states. No MQTT here: the
// service publishes and queues what these say.
#pragma once

#include <nimbara/api/command.h>

#include <optional>
#include <string>

#include "command_input.h"

namespace tool::serve {

// What the entities of an output remember between messages.
struct EntitySettings {
  int lengthMs = 500;
  int red = 255, green = 255, blue = 255;  // the light's colour
};

// What one entity message asks for; every part may be absent.
struct EntityRequest {
  std::optional<EntitySettings> settings;   // to keep
  bool lengthChanged = false;               // the length is to be published
  std::optional<Json> lightState;           // to publish, retained, on light/state
  std::optional<nimbara::Command> command;  // to queue
  bool fromLight = false;                   // the command is the light's flash
};

// The request of a message on nimbara/ID/OUTPUT/LEAF for LEAF one of
// light/set, puff/press, spray/press, length/set (any other asks nothing).
// Bad input is a UsageError naming what was wrong.
EntityRequest entityRequest(const std::string& leaf, const std::string& payload,
                            const EntitySettings& now);

// The light's state once its flash has played: off, in the flash's colour.
Json lightStateAfter(const nimbara::Command& flash);

}  // namespace tool::serve
