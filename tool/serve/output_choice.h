// The outputs the service drives, their names on topics, and their presence.
// The only place the service asks the platform about outputs.
#pragma once

#include <nimbara/platform/backend.h>

#include <memory>
#include <string>
#include <vector>

namespace tool::serve {

struct ServedOutput {
  std::string device;  // as --device takes it: virtual, wav:PATH, pulse, pulse:SINK
  std::string name;    // its topic level
  std::shared_ptr<nimbara::platform::Backend> backend;
};

// A name made safe for one topic level and for Home Assistant's ids: every
// byte but A-Z, a-z, 0-9, _ and - becomes _, and an empty name is "_".
std::string topicLevel(const std::string& name);

// The output's topic level: "virtual", the sink's name for pulse:SINK,
// "pulse" for the default sink, the file's name without ".wav" for wav:PATH.
std::string outputName(const std::string& device);

// The outputs named with --device, or without any, the default backend's
// outputs where headphones are present (its default output when none is). Two outputs
// with one topic level, or an unknown device, are a UsageError.
std::vector<ServedOutput> chooseOutputs(const std::vector<std::string>& devices,
                                        const std::string& route);

struct Presence {
  bool present = false;
  std::string route;  // empty when it cannot be read
};

// The route of the output and whether the presence rule sees headphones on it.
Presence presenceOf(nimbara::platform::Backend& backend);

}  // namespace tool::serve
