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
  std::shared_ptr<nimbara::platform::VirtualDevice> virtualDevice;
  // The sound server's device, when it is one (reached through readLevel).
  std::shared_ptr<nimbara::platform::Backend> pulse;
  std::shared_ptr<nimbara::platform::WavDevice> wav;
};

// Makes and installs the output; a sound server that cannot be reached fails.
Output openOutput(const Globals& globals);

// The current route's name, or empty.
std::string routeOf();

// The controller's presence check (unless --skip-precheck): NoDevice when no
// headphones are on the route. Returns the controller.
std::shared_ptr<nimbara::NimbaraProtocol> checkPresence(const Globals& globals);

// The sound server output's volume and mute state; false for other outputs.
bool readLevel(const Output& output, nimbara::platform::PulseDevice::OutputLevel* level);

// The rate of the sink that plays (after playing on it); false for other
// outputs or when it cannot be told.
bool readRate(const Output& output, nimbara::platform::PulseDevice::PlaybackRate* rate);

// Warns on stderr when a sound server's output is muted or turned down.
void warnAboutLevel(const Output& output);

// Throws the one-line error for an output that failed with `status`.
[[noreturn]] void failedOutput(const Globals& globals, const Output& output, std::int32_t status);

}  // namespace tool
