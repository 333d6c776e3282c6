// The streams of the sound-server backend: playback (pulse_stream.cpp), with
// the settings a rate probe shares with it, and record (pulse_capture.cpp).
#pragma once

#include <nimbara/platform/backend.h>

#include <pulse/pulseaudio.h>

#include <cstdint>
#include <memory>
#include <string>

#include "platform/pulse/pulse_connection.h"

namespace nimbara::platform::pulse {

// A playback stream of the signal's format that asks for the preferred rate
// (0: no request); null when memory runs out.
pa_stream* newPlaybackStream(pa_context* context, std::uint32_t preferredRate, const char* name);

// The buffering asked of the server for a playback stream.
pa_buffer_attr playbackBufferAttr();

// Opens a playback stream on `sink` (empty: the default one).
std::int32_t openPlayback(std::shared_ptr<Connection> connection, const std::string& sink,
                          std::uint32_t preferredRate, std::unique_ptr<OutputStream>* stream);

// Opens a record stream on `source`, a name the server knows.
std::int32_t openRecord(std::shared_ptr<Connection> connection, const std::string& source,
                        std::unique_ptr<CaptureStream>* stream);

}  // namespace nimbara::platform::pulse
