// Rendering a frame into stereo frames: the renderer's core, which needs no
// audio output (the output callback and the command renderer both use it).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

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

// A waveform as runs of one value: a square period is two runs, so a bit is
// written as two fills instead of a lookup per frame. Made from the tables
// themselves at every call, so the output follows whatever they hold.
struct Runs {
  static constexpr std::uint32_t kMost = 8;
  std::uint32_t count = 0;   // 0: no table, or too many runs to bother
  std::uint32_t end[kMost];  // the index after each run
  std::int16_t value[kMost];

  explicit Runs(const WaveTable* wave) {
    if (wave == nullptr) return;
    for (std::uint32_t k = 0; k < wave->length; ++k) {
      if (k == 0 || wave->samples[k] != wave->samples[k - 1]) {
        if (count == kMost) {
          count = 0;
          return;
        }
        value[count++] = wave->samples[k];
      }
      end[count - 1] = k + 1;
    }
  }
};

// How many of the `n` bytes from p equal the first, eight at a time.
std::uint32_t sameBytes(const std::uint8_t* p, std::uint32_t n) {
  const std::uint64_t eight = p[0] * 0x0101010101010101ull;
  std::uint32_t k = 0;
  for (; k + 8 <= n; k += 8) {
    std::uint64_t word;
    std::memcpy(&word, p + k, sizeof word);
    if (word != eight) break;
  }
  while (k < n && p[k] == p[0]) ++k;
  return k;
}

// `n` frames of one value, eight or two frames to a store: half-periods are
// short, so a plain loop beats a call to a general fill.
void fillFrames(std::int16_t* out, std::uint32_t n, std::int16_t value) {
  const std::uint64_t pair = static_cast<std::uint16_t>(value) * 0x0001000100010001ull;
  const std::uint64_t block[4] = {pair, pair, pair, pair};  // eight frames
  std::uint32_t k = 0;
  for (; k + 8 <= n; k += 8) std::memcpy(out + 2 * k, block, sizeof block);
  for (; k + 2 <= n; k += 2) std::memcpy(out + 2 * k, &pair, sizeof pair);
  if (k < n) std::memcpy(out + 2 * k, &pair, 4);
}

// Writes frames [sampleIndex, sampleIndex + n) of a waveform, run by run.
void writeRuns(std::int16_t* out, const Runs& runs, std::uint32_t sampleIndex, std::uint32_t n) {
  std::uint32_t run = 0;
  while (runs.end[run] <= sampleIndex) ++run;
  while (n > 0) {
    const std::uint32_t length = std::min(runs.end[run] - sampleIndex, n);
    fillFrames(out, length, runs.value[run]);
    out += 2 * length;
    sampleIndex += length;
    n -= length;
    ++run;
  }
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
  // Made once a bit is met: most buffers of a playback are silence.
  std::optional<Runs> zeroRuns, oneRuns;
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
    if (unit->kind == nimbara::detail::kFramesUnit) {
      const std::uint32_t n = std::min(length - node->bitIndex, count - i);
      std::memcpy(out + 2 * i, unit->data + std::size_t{4} * node->bitIndex, std::size_t{4} * n);
      i += n;
      node->bitIndex += n;
    } else if (unit->kind == NIMBARA_SAMPLE_UNIT) {
      const std::uint32_t n = std::min(length - node->bitIndex, count - i);
      const std::uint8_t* element = unit->data + node->bitIndex;
      std::int16_t* frames = out + 2 * i;
      // Runs of equal elements (the wake-up level, the silences) as fills.
      for (std::uint32_t k = 0; k < n;) {
        const std::uint32_t end = k + sameBytes(element + k, n - k);
        fillFrames(frames + 2 * k, end - k,
                   element[k] == 1 ? kHigh : static_cast<std::int16_t>(element[k]));
        k = end;
      }
      i += n;
      node->bitIndex += n;
    } else {
      // Whole bits in one go while the buffer has room; the cursors carry a
      // bit cut by the buffer's end over to the next call.
      std::uint32_t bit = node->bitIndex;
      std::uint32_t sampleIndex = node->sampleIndex;
      while (bit < length && i < count) {
        const bool isOne = unit->data[bit] != 0;
        const WaveTable* wave = isOne ? one : zero;
        std::optional<Runs>& lazy = isOne ? oneRuns : zeroRuns;
        if (!lazy) lazy.emplace(wave);
        const Runs& runs = *lazy;
        const std::uint32_t waveLength = wave != nullptr ? wave->length : 0;
        if (sampleIndex < waveLength) {
          const std::uint32_t n = std::min(waveLength - sampleIndex, count - i);
          std::int16_t* frames = out + 2 * i;
          if (runs.count > 0) {
            writeRuns(frames, runs, sampleIndex, n);
          } else {
            const std::int16_t* sample = wave->samples + sampleIndex;
            for (std::uint32_t k = 0; k < n; ++k) writeFrame(frames, k, sample[k]);
          }
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
