// The native PipeWire backend: a playback stream whose data moves on
// PipeWire's own real-time thread. While a transmission plays the stream asks
// the graph to run at 44100 Hz (node.rate and node.force-rate); a graph that
// stays at another rate would resample the signal, and the stream fails with
// NIMBARA_AUDIO_ERR_RATE unless resampling is allowed. The route is the sink
// node's description and, when its device has an active output route, that
// route's: "Built-in Audio Analog Stereo: Headphones", as the sound-server
// backend names a sink; the level is the route's where the card has a mixer,
// else the node's own.
#pragma once

#include <nimbara/platform/backend.h>

#include <atomic>
#include <string>

namespace nimbara::platform {

class PipeWireDevice : public Backend {
 public:
  /** node: the node name of the sink to play on; empty for the default one.
   * allowResampling: play on a graph at another rate all the same. */
  explicit PipeWireDevice(std::string node = {}, bool allowResampling = false);

  const char* name() const override { return "pipewire"; }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<OutputStream>* stream) override;
  std::int32_t routeName(std::string* name) override;
  /** Every Audio/Sink node, each rate found by opening a stream on it. */
  std::int32_t listOutputs(std::vector<OutputInfo>* outputs) override;
  std::int32_t outputLevel(OutputLevel* level) override;
  /** The graph's rate while a stream asks for 44100 Hz, found by opening one. */
  std::int32_t playbackRate(PlaybackRate* rate) override;
  /** A source node, or "SINK.monitor" for a sink's monitor; empty: the
   * monitor of the default sink. */
  std::int32_t openCapture(const std::string& source,
                           std::unique_ptr<CaptureStream>* stream) override;
  std::int32_t setAllowResampling(bool allow) override;

 private:
  const std::string node_;
  std::atomic<bool> allowResampling_;
};

}  // namespace nimbara::platform
