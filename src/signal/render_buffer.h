// The renderer's core: a frame into stereo frames, with no audio output.
#pragma once

#include <nimbara/signal/playback.h>

#include <cstdint>

namespace nimbara::detail {

// Fills `count` stereo frames from the frame's cursor, silence after its end.
void renderBuffer(PlaybackContext* context, std::int16_t* out, std::uint32_t count);

}  // namespace nimbara::detail
