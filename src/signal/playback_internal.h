// Shared between the renderer and the playback engine.
#pragma once

#include <nimbara/signal/playback.h>

#include <atomic>

namespace nimbara::detail {

// Fills `count` stereo frames from the frame's cursor, silence after its end.
void renderBuffer(PlaybackContext* context, std::int16_t* out, std::uint32_t count);

// The end-of-playback branch of the output callback.
void endOfPlayback(PlaybackContext* context);

// playedFrames is written by the callback side and polled by the caller.
inline std::atomic_ref<std::uint32_t> playedFramesOf(PlaybackContext* context) {
  return std::atomic_ref<std::uint32_t>(context->playedFrames);
}

}  // namespace nimbara::detail
