// nimbara serve: every accessory in the smart home over MQTT.
#pragma once

namespace tool {

// The words after "nimbara": "serve" and its options. Parses only, unless
// `execute`; the exit status.
int runServe(int argc, const char* const* argv, bool execute);

}  // namespace tool
