// Rendering a frame into stereo frames: the renderer's core, which needs no
// audio output (the output callback and the command renderer both use it).
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "signal/fixed_units.h"
#include "signal/render_buffer.h"

namespace {

using nimbara::detail::waveNum00;
using nimbara::detail::waveNum01;

constexpr std::int16_t kHigh = 32767;

// Both channels of a frame in one 32-bit store.
void writeFrame(std::int16_t* out, std::uint32_t frame, std::int16_t value) {
  const std::uint32_t pair = static_cast<std::uint16_t>(value) * 0x00010001u;
  std::memcpy(out + 2 * frame, &pair, sizeof pair);
}

const WaveTable* usable(const WaveTable* wave) {
  return wave != nullptr && wave->samples != nullptr && wave->length > 0 ? wave : nullptr;
}

// The two waveforms for this playback: taken together at its first render
// (the priming, on the caller's thread) and kept, so that clearing the fixed
// units meanwhile changes nothing for a playback under way.
void takeWaves(PlaybackContext* context) {
  if (context->engineWaves[0] != nullptr && context->engineWaves[1] != nullptr) return;
  for (int attempt = 0; attempt < 3; ++attempt) {
    {
      auto fixedUnits = nimbara::detail::useFixedUnits();
      const WaveTable* zero = usable(waveNum01.load(std::memory_order_acquire));
      const WaveTable* one = usable(waveNum00.load(std::memory_order_acquire));
      if (zero != nullptr && one != nullptr) {
        context->engineWaves[0] = zero;
        context->engineWaves[1] = one;
        return;
      }
    }
    initProtocolUnit();  // cleared by another thread since the frame was built
  }
}

// The one frame an empty unit yields: its first element as the renderer reads
// any element (a sample, or the first sample of the bit's waveform).
std::int16_t firstFrameOf(const ProtocolUnit& unit, const WaveTable* zero, const WaveTable* one) {
  const std::uint8_t element = unit.data[0];
  if (unit.kind == NIMBARA_SAMPLE_UNIT) {
    return element == 1 ? kHigh : static_cast<std::int16_t>(element);
  }
  const WaveTable* wave = element != 0 ? one : zero;
  return wave != nullptr ? wave->samples[0] : 0;
}

// Moves the cursor to the next node once the current unit is complete.
void leaveNode(FrameNode*& node) {
  node->bitIndex = 0;
  node->sampleIndex = 0;
  node = node->next;
}

}  // namespace

// Renders `count` frames from the frame's cursor into `out`, run by run:
// a sample unit gives one frame per element, a bit unit its whole waveform,
// and once no node is left, silence.
void nimbara::detail::renderBuffer(PlaybackContext* context, std::int16_t* out,
                                   std::uint32_t count) {
  FrameNode* node = context->protocolFrame;
  takeWaves(context);
  const WaveTable* zero = context->engineWaves[0];
  const WaveTable* one = context->engineWaves[1];
  std::uint32_t i = 0;
  while (i < count && node != nullptr) {
    const ProtocolUnit* unit = node->protocol;
    if (unit == nullptr) {  // a frame built without the fixed units
      node = node->next;
      continue;
    }
    const auto length = static_cast<std::uint32_t>(unit->length);
    if (length == 0 || unit->data == nullptr) {
      // The end of a unit is tested after its element has played, so an empty
      // unit still yields one frame, read from its first element, before the
      // renderer moves on. Without data there is nothing to read: silence.
      writeFrame(out, i++, unit->data == nullptr ? 0 : firstFrameOf(*unit, zero, one));
      leaveNode(node);
      continue;
    }
    if (node->bitIndex >= length) {
      leaveNode(node);
      continue;
    }
    if (unit->kind == NIMBARA_SAMPLE_UNIT) {
      const std::uint32_t n = std::min(length - node->bitIndex, count - i);
      const std::uint8_t* element = unit->data + node->bitIndex;
      std::int16_t* frames = out + 2 * i;
      for (std::uint32_t k = 0; k < n; ++k) {
        writeFrame(frames, k, element[k] == 1 ? kHigh : static_cast<std::int16_t>(element[k]));
      }
      i += n;
      node->bitIndex += n;
    } else {
      // Whole bits in one go while the buffer has room; the cursors carry a
      // bit cut by the buffer's end over to the next call.
      std::uint32_t bit = node->bitIndex;
      std::uint32_t sampleIndex = node->sampleIndex;
      while (bit < length && i < count) {
        const WaveTable* wave = unit->data[bit] != 0 ? one : zero;
        const std::uint32_t waveLength = wave != nullptr ? wave->length : 0;
        if (sampleIndex < waveLength) {
          const std::uint32_t n = std::min(waveLength - sampleIndex, count - i);
          const std::int16_t* sample = wave->samples + sampleIndex;
          std::int16_t* frames = out + 2 * i;
          for (std::uint32_t k = 0; k < n; ++k) writeFrame(frames, k, sample[k]);
          i += n;
          sampleIndex += n;
        }
        if (sampleIndex >= waveLength) {
          sampleIndex = 0;
          ++bit;
        }
      }
      node->bitIndex = bit;
      node->sampleIndex = sampleIndex;
    }
    if (node->bitIndex >= length) leaveNode(node);
  }
  context->protocolFrame = node;
  if (i < count) std::memset(out + 2 * i, 0, (count - i) * 4u);
}
