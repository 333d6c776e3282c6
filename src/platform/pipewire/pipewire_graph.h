// What the PipeWire graph tells about its audio nodes: the sinks with their
// routes and levels, the sources, and the default sink. Read on a connection
// of its own that lives for one query.
#pragma once

#include <nimbara/platform/backend.h>

#include <cstdint>
#include <string>
#include <vector>

namespace nimbara::platform::pipewire {

// pw_init, once per process.
void initOnce();

struct Node {
  std::string name;         // node.name
  std::string description;  // node.description, else the name
  std::string port;         // the device's active output route's description; empty without
  OutputLevel level;        // the route's volume when it has one, else the node's
  bool hasLevel = false;
};

struct Graph {
  std::vector<Node> sinks;           // Audio/Sink nodes, in the order the graph lists them
  std::vector<std::string> sources;  // Audio/Source node names
  std::string defaultSink;           // the node name the session manager plays on by default
};

// The route as the presence rule reads it: the description, and the port's
// after a colon when there is one ("Built-in Audio: Headphones"), the same as
// the sound-server backend makes of a sink.
std::string routeOf(const Node& node);

// Reads the graph. `levelsOf` names the sink whose route and level to read
// ("*" for every sink, empty for the default one). NIMBARA_AUDIO_ERR_NO_SERVER
// when no PipeWire daemon answers.
std::int32_t readGraph(const std::string& levelsOf, Graph* graph);

}  // namespace nimbara::platform::pipewire
