// Expected signals of whole device commands, from their bit strings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/expected_signal.h"

namespace nimbara::test {

inline std::string byteBits(unsigned value, int width = 8) {
  std::string bits;
  for (int i = width - 1; i >= 0; --i) bits += ((value >> i) & 1u) != 0 ? '1' : '0';
  return bits;
}

// Stereo samples handed to the output for an LED command: the frame, then
// silence up to `frames` (0: the frame alone).
inline std::vector<std::int16_t> ledCommandSignal(unsigned opcode, unsigned red, unsigned green,
                                                  unsigned blue, unsigned special, int time,
                                                  std::size_t frames) {
  auto mono = expectedFrameSignal(withParity(byteBits(opcode) + byteBits(red) + byteBits(green) +
                                             byteBits(blue) + byteBits(special) +
                                             byteBits(static_cast<std::uint16_t>(time), 16)));
  if (frames > 0) mono.resize(frames, 0);
  return stereo(mono);
}

}  // namespace nimbara::test
