#include "receiver/transmission.h"

#include <nimbara/api/command.h>

#include <algorithm>

#include "receiver/frame_geometry.h"

namespace nimbara::receiver {
namespace {

std::uint32_t field(const std::string& bits, std::size_t from, std::size_t width) {
  std::uint32_t value = 0;
  for (std::size_t i = from; i < from + width; ++i) value = (value << 1) | (bits[i] == '1');
  return value;
}

}  // namespace

bool evenParity(const std::string& bits) {
  return !bits.empty() && std::count(bits.begin(), bits.end(), '1') % 2 == 0;
}

bool followsAfterSilence(const Payload& first, const Payload& second, double sampleRate) {
  const double gap = (second.start - first.end) * kReferenceRate / sampleRate;
  return gap >= 0.85 * kStopAndSilence && gap <= 1.15 * kStopAndSilence;
}

Transmission assemble(const Payload& first, const Payload* second, double sampleRate) {
  Transmission t;
  t.bits[0] = first.bits;
  if (second != nullptr) t.bits[1] = second->bits;
  t.startSeconds = std::max(0.0, first.start / sampleRate - kWakeUpAndSilence / kReferenceRate);
  t.parityOk[0] = evenParity(t.bits[0]);
  t.parityOk[1] = evenParity(t.bits[1]);
  t.repetitionsAgree = second != nullptr && t.bits[0] == t.bits[1];
  t.confidence =
      second != nullptr ? std::min(first.confidence, second->confidence) : first.confidence;
  t.snrDb = second != nullptr ? (first.snrDb + second->snrDb) / 2 : first.snrDb;

  const std::string& bits = t.bits[0];
  const std::size_t parameterBits = bits.size() >= 9 ? bits.size() - 9 : 0;
  t.opcode = static_cast<std::uint8_t>(bits.size() >= 8 ? field(bits, 0, 8) : 0);
  t.command = bits.size() >= 17
                  ? verbOfOpcode(t.opcode, static_cast<unsigned>(parameterBits), &t.asksTank)
                  : "unknown";
  if (parameterBits == 48) {
    t.red = static_cast<std::uint8_t>(field(bits, 8, 8));
    t.green = static_cast<std::uint8_t>(field(bits, 16, 8));
    t.blue = static_cast<std::uint8_t>(field(bits, 24, 8));
    t.special = static_cast<std::uint8_t>(field(bits, 32, 8));
    t.time = static_cast<std::int16_t>(field(bits, 40, 16));
  } else if (parameterBits == 16) {
    t.time = static_cast<std::int16_t>(field(bits, 8, 16));
  } else if (parameterBits == 32) {
    t.number = field(bits, 8, 32);
  }
  // The state and tank requests carry a parameter of eight 0-bits: anything
  // else is no command the accessory knows.
  if (parameterBits == 8 && field(bits, 8, 8) != 0) t.command = "unknown";
  t.damaged = t.command == "unknown" || !t.parityOk[0] || !t.parityOk[1] || !t.repetitionsAgree ||
              t.confidence < kConfidentMargin;
  return t;
}

}  // namespace nimbara::receiver
