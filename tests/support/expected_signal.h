// The signal a frame must produce, computed from first principles (bit
// strings and the waveform rules), independently of the library's renderer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nimbara/frame/frame.h>

namespace nimbara::test {

// Elements of a unit as a string of '0' and '1'.
inline std::string bitsOf(const ProtocolUnit* unit) {
  std::string bits;
  for (int i = 0; i < unit->length; ++i) bits += unit->data[i] != 0 ? '1' : '0';
  return bits;
}

inline std::vector<FrameNode*> nodesOf(FrameNode* frame) {
  std::vector<FrameNode*> nodes;
  for (FrameNode* node = frame; node != nullptr; node = node->next) nodes.push_back(node);
  return nodes;
}

// Mono samples of one frame whose payload (command, parameter and parity) is
// `payload`: a constant high wake-up, then twice 10 ms of silence, the payload
// as square waves (a 0-bit one period of 20 samples, a 1-bit one of 40, each
// starting high) and five high stop samples.
inline std::vector<std::int16_t> expectedFrameSignal(const std::string& payload) {
  std::vector<std::int16_t> out(220, 32767);
  for (int repetition = 0; repetition < 2; ++repetition) {
    out.insert(out.end(), 441, 0);
    for (char bit : payload) {
      const int half = bit == '1' ? 20 : 10;
      out.insert(out.end(), half, 32767);
      out.insert(out.end(), half, -32768);
    }
    out.insert(out.end(), 5, 32767);
  }
  return out;
}

// Payload bits with their even-parity bit appended.
inline std::string withParity(const std::string& bits) {
  int ones = 0;
  for (char bit : bits) ones += bit == '1';
  return bits + (ones % 2 == 1 ? '1' : '0');
}

// Interleaved stereo from mono: both channels carry the same sample.
inline std::vector<std::int16_t> stereo(const std::vector<std::int16_t>& mono) {
  std::vector<std::int16_t> out;
  out.reserve(mono.size() * 2);
  for (std::int16_t sample : mono) {
    out.push_back(sample);
    out.push_back(sample);
  }
  return out;
}

}  // namespace nimbara::test
