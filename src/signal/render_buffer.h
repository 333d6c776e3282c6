// The renderer's core: a frame into stereo frames, with no audio output.
#pragma once

#include <nimbara/signal/playback.h>

#include <cstdint>

namespace nimbara::detail {

// The kind of a unit that holds ready samples: `data` points to `length`
// interleaved stereo 16-bit frames, played as they are. Made only inside the
// library (a timeline played through the engine); never a bit or sample unit.
constexpr std::uint32_t kFramesUnit = 0x53524D46u;  // 'FMRS'

// Fills `count` stereo frames from the frame's cursor, silence after its end.
void renderBuffer(PlaybackContext* context, std::int16_t* out, std::uint32_t count);

}  // namespace nimbara::detail
