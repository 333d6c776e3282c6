// Shared between the renderer and the playback engine.
#pragma once

#include <nimbara/signal/playback.h>

#include <atomic>

#include "signal/render_buffer.h"

namespace nimbara::detail {

// The end-of-playback branch of the output callback.
void endOfPlayback(PlaybackContext* context);

// playedFrames is written by the callback side and polled by the caller.
inline std::atomic_ref<std::uint32_t> playedFramesOf(PlaybackContext* context) {
  return std::atomic_ref<std::uint32_t>(context->playedFrames);
}

}  // namespace nimbara::detail
