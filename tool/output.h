// The audio output the tool plays on, chosen with --device and installed as
// the library's backend, and the checks around a transmission.
#pragma once

#include <nimbara/nimbara.h>

#include <memory>
#include <string>

#include "commands.h"

namespace tool {

struct Output {
  std::shared_ptr<nimbara::platform::Backend> backend;
};

// The backend --device and --route name; a name it cannot take is a
// UsageError.
std::shared_ptr<nimbara::platform::Backend> chosenBackend(const Globals& globals);

// Makes and installs the output; a sound server that cannot be reached fails.
Output openOutput(const Globals& globals);

// The current route's name, or empty.
std::string routeOf();

// The controller's presence check (unless --skip-precheck): NoDevice when no
// headphones are on the route. Returns the controller.
std::shared_ptr<nimbara::NimbaraProtocol> checkPresence(const Globals& globals);

// The output's volume and mute state: full and unmuted for an output without
// a level; false when it cannot be told.
bool readLevel(const Output& output, nimbara::platform::OutputLevel* level);

// The rate of the output while it plays (it may play to tell): the signal's
// own for an output that cannot resample; false when it cannot be told.
bool readRate(const Output& output, nimbara::platform::PlaybackRate* rate);

// Warns on stderr when the output is muted, turned down or resampling.
void warnAboutLevel(const Output& output);

// Throws the one-line error for an output that failed with `status`.
[[noreturn]] void failedOutput(const Globals& globals, const Output& output, std::int32_t status);

}  // namespace tool
