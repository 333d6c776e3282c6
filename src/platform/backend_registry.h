// The registry's table: each backend's file defines its factory, and the
// table in registry.cpp names it under its scheme.
#pragma once

#include <nimbara/platform/backend.h>

#include <memory>
#include <string>

namespace nimbara::platform::detail {

// What follows "scheme:" in a backend's name (empty for the bare scheme), and
// the route the caller asks a simulated output to report (empty: its own).
struct BackendArgs {
  std::string argument;
  std::string route;
};

// Makes a backend; throws std::invalid_argument for arguments it cannot take.
using BackendFactory = std::shared_ptr<Backend> (*)(const BackendArgs& args);

struct BackendEntry {
  const char* scheme;
  BackendFactory make;
  const char* usage;  // the names it takes, for messages: "pulse, pulse:SINK"
  bool canBeDefault;  // tried, in table order, when no backend is chosen
  // Whether it can be the default here and now (null: always): a sound
  // server's backend only where a server runs.
  bool (*runsHere)() = nullptr;
  bool simulated = false;  // plays into memory: the default only without a real output
};

// Whether a PulseAudio server (PipeWire's included) is configured or running.
bool soundServerRuns();
// Whether a PipeWire daemon answers on the socket its clients would use.
bool pipeWireRuns();

std::shared_ptr<Backend> makePulseBackend(const BackendArgs& args);
std::shared_ptr<Backend> makeVirtualBackend(const BackendArgs& args);
std::shared_ptr<Backend> makeWavBackend(const BackendArgs& args);
std::shared_ptr<Backend> makeAlsaBackend(const BackendArgs& args);
std::shared_ptr<Backend> makePipeWireBackend(const BackendArgs& args);

}  // namespace nimbara::platform::detail
