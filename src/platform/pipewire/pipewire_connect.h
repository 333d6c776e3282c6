// Connecting a stream of the backend to the graph, the same way for playback
// and capture: the signal's own format, mapped buffers, data on PipeWire's
// real-time thread.
#pragma once

#include <pipewire/pipewire.h>

#include <cstdint>

namespace nimbara::platform::pipewire {

// Starts `loop`, then makes a stream named `name` on it with `props` (taken,
// whatever happens) and `events` for `data`, and connects it in `direction`,
// S16_LE at 44100 Hz in two channels. `*stream` is set as soon as the stream
// exists, so that the caller destroys it even when connecting fails.
std::int32_t connectStream(pw_thread_loop* loop, const char* name, pw_properties* props,
                           const pw_stream_events* events, void* data, pw_direction direction,
                           pw_stream** stream);

}  // namespace nimbara::platform::pipewire
