// The native PipeWire backend: a playback stream whose data moves on
// PipeWire's own real-time thread. While a transmission plays the stream asks
// the graph to run at 44100 Hz (node.rate and node.force-rate); a graph that
// stays at another rate would resample the signal, and the stream fails with
// NIMBARA_AUDIO_ERR_RATE unless resampling is allowed.
#pragma once

#include <nimbara/platform/backend.h>

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
  /** The node's name: presence from the device's route is not read yet. */
  std::int32_t routeName(std::string* name) override;
  /** The graph's rate while a stream asks for 44100 Hz, found by opening one. */
  std::int32_t playbackRate(PlaybackRate* rate) override;

 private:
  const std::string node_;
  const bool allowResampling_;
};

}  // namespace nimbara::platform
