// What the server tells about its sinks and sources, each query run to its end
// on the connection.
#pragma once

#include <nimbara/platform/backend.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pulse/pulse_connection.h"

namespace nimbara::platform::pulse {

// What the server and one sink tell about themselves.
struct SinkFacts {
  std::string route;
  OutputLevel level;
  std::uint32_t rate = 0;
  bool pipewire = false;  // the server is PipeWire's PulseAudio interface
};

// The sink named `sink` (empty: the default one).
std::int32_t readSink(Connection& connection, const std::string& sink, SinkFacts* facts);

// Every sink, its rate as it is now.
std::int32_t listSinks(Connection& connection, std::vector<OutputInfo>* sinks);

// Plays up to 300 ms of silence on the sink with the rate request a
// transmission makes, and reads the sink's rate once the server has started
// playing it: a sink switches its rate only for a stream that really plays.
std::int32_t probeRate(Connection& connection, const std::string& sink, std::uint32_t preferredRate,
                       std::uint32_t* rate);

// Whether the server has a source of that name.
std::int32_t hasSource(Connection& connection, const std::string& name, bool* exists);

}  // namespace nimbara::platform::pulse
