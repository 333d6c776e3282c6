// The PipeWire backend's operations: the streams, and what the graph says of
// the sink they play on.
#include "platform/pipewire/pipewire_device.h"

#include <nimbara/signal/signal_format.h>

#include <algorithm>
#include <new>

#include "platform/backend_registry.h"
#include "platform/guarded.h"
#include "platform/pipewire/pipewire_graph.h"
#include "platform/pipewire/pipewire_stream.h"

namespace nimbara::platform {
namespace {

using detail::guarded;

constexpr const char* kMonitorSuffix = ".monitor";

const char* const kHowToAllow =
    "let PipeWire run at 44100 Hz with this line in "
    "~/.config/pipewire/pipewire.conf.d/44100.conf, then restart PipeWire:\n"
    "  context.properties = { default.clock.allowed-rates = [ 44100 48000 ] }\n";

// The sink node `node` names (empty: the default one) in a graph read for it.
const pipewire::Node* sinkOf(const pipewire::Graph& graph, const std::string& node) {
  const std::string& name = node.empty() ? graph.defaultSink : node;
  const auto found = std::find_if(graph.sinks.begin(), graph.sinks.end(),
                                  [&](const pipewire::Node& sink) { return sink.name == name; });
  return found != graph.sinks.end() ? &*found : nullptr;
}

// Reads the graph for the sink and hands it to `use`.
template <typename Use>
std::int32_t withSink(const std::string& node, Use use) {
  return guarded([&] {
    pipewire::Graph graph;
    if (const std::int32_t status = pipewire::readGraph(node, &graph)) return status;
    const pipewire::Node* sink = sinkOf(graph, node);
    if (sink == nullptr) return std::int32_t{NIMBARA_AUDIO_ERR_NO_ROUTE};
    use(*sink);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

}  // namespace

PipeWireDevice::PipeWireDevice(std::string node, bool allowResampling)
    : node_(std::move(node)), allowResampling_(allowResampling) {}

std::int32_t PipeWireDevice::openStream(const NimbaraStreamFormat&,
                                        std::unique_ptr<OutputStream>* stream) {
  return pipewire::openPlayback(node_, allowResampling_.load(std::memory_order_relaxed), stream);
}

std::int32_t PipeWireDevice::routeName(std::string* name) {
  return withSink(node_, [&](const pipewire::Node& sink) { *name = pipewire::routeOf(sink); });
}

std::int32_t PipeWireDevice::outputLevel(OutputLevel* level) {
  std::int32_t status = NIMBARA_AUDIO_OK;
  const std::int32_t read = withSink(node_, [&](const pipewire::Node& sink) {
    if (sink.hasLevel) {
      *level = sink.level;
    } else {
      status = NIMBARA_AUDIO_ERR_NOT_SUPPORTED;  // a node without a volume of its own
    }
  });
  return read != NIMBARA_AUDIO_OK ? read : status;
}

std::int32_t PipeWireDevice::playbackRate(PlaybackRate* rate) {
  return guarded([&] {
    PlaybackRate found;
    if (const std::int32_t status = pipewire::probeRate(node_, &found.rate)) return status;
    found.exact = found.rate == NIMBARA_SAMPLE_RATE;
    if (!found.exact) found.howToAllow = kHowToAllow;
    *rate = std::move(found);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t PipeWireDevice::listOutputs(std::vector<OutputInfo>* outputs) {
  return guarded([&] {
    pipewire::Graph graph;
    if (const std::int32_t status = pipewire::readGraph("*", &graph)) return status;
    std::vector<OutputInfo> found;
    for (const pipewire::Node& sink : graph.sinks) {
      OutputInfo info;
      info.name = sink.name;
      info.description = sink.description;
      info.port = sink.port;
      info.route = pipewire::routeOf(sink);
      info.isDefault = sink.name == graph.defaultSink;
      // The rate shows only while a stream with the transmission's request plays.
      const std::int32_t status = pipewire::probeRate(sink.name, &info.rate);
      if (status == NIMBARA_AUDIO_ERR_NO_SERVER) return status;
      if (status != NIMBARA_AUDIO_OK) info.rate = 0;
      info.exact = info.rate == NIMBARA_SAMPLE_RATE;
      found.push_back(std::move(info));
    }
    *outputs = std::move(found);
    return std::int32_t{NIMBARA_AUDIO_OK};
  });
}

std::int32_t PipeWireDevice::openCapture(const std::string& source,
                                         std::unique_ptr<CaptureStream>* stream) {
  return guarded([&] {
    if (source.empty()) return pipewire::openCapture(node_, true, stream);
    // A stream aimed at a node that is not there would wait for it, or be
    // moved to the default one: the name is looked up first.
    pipewire::Graph graph;
    if (const std::int32_t status = pipewire::readGraph("*", &graph)) return status;
    if (std::find(graph.sources.begin(), graph.sources.end(), source) != graph.sources.end()) {
      return pipewire::openCapture(source, false, stream);
    }
    const std::size_t suffix = std::string(kMonitorSuffix).size();
    if (source.size() > suffix && source.ends_with(kMonitorSuffix)) {
      const std::string sink = source.substr(0, source.size() - suffix);
      if (sinkOf(graph, sink) != nullptr) return pipewire::openCapture(sink, true, stream);
    }
    return std::int32_t{NIMBARA_AUDIO_ERR_NO_SUCH_NAME};
  });
}

std::int32_t PipeWireDevice::setAllowResampling(bool allow) {
  allowResampling_.store(allow, std::memory_order_relaxed);
  return NIMBARA_AUDIO_OK;
}

std::shared_ptr<Backend> detail::makePipeWireBackend(const BackendArgs& args) {
  return std::make_shared<PipeWireDevice>(args.argument);
}

}  // namespace nimbara::platform
