// The PipeWire backend's streams: playback into a sink node, capture from a
// source node or a sink's monitor.
#pragma once

#include <nimbara/platform/backend.h>

#include <cstdint>
#include <memory>
#include <string>

namespace nimbara::platform::pipewire {

// A playback stream on `node` (empty: the default sink), running once the
// graph's rate is known. On a graph that cannot run at 44100 Hz it fails with
// NIMBARA_AUDIO_ERR_RATE unless `allowResampling`, and logs that it resamples.
std::int32_t openPlayback(const std::string& node, bool allowResampling,
                          std::unique_ptr<OutputStream>* stream);

// The rate the graph runs `node` at while a stream of ours asks for 44100 Hz:
// one is opened and closed, silent.
std::int32_t probeRate(const std::string& node, std::uint32_t* rate);

// A capture stream from the source node `node`, or from the monitor of the
// sink node `node` when `monitor`; an empty node with `monitor`: the default
// sink's monitor.
std::int32_t openCapture(const std::string& node, bool monitor,
                         std::unique_ptr<CaptureStream>* stream);

}  // namespace nimbara::platform::pipewire
