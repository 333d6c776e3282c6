#include <nimbara/frame/protocol_unit.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

// A bit unit "name" holding the given bytes, each written most significant bit
// first into its own eight elements.
ProtocolUnit* makeBitUnit(std::initializer_list<std::uint8_t> bytes, const char* name) {
  const auto length = static_cast<std::int32_t>(bytes.size() * 8);
  auto* unit = static_cast<ProtocolUnit*>(std::calloc(1, sizeof(ProtocolUnit)));
  auto* data = static_cast<std::uint8_t*>(std::calloc(static_cast<std::size_t>(length), 1));
  if (unit == nullptr || data == nullptr) {
    std::free(unit);
    std::free(data);
    return nullptr;
  }
  std::size_t element = 0;
  for (std::uint8_t byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) data[element++] = (byte >> bit) & 1u;
  }
  unit->data = data;
  unit->length = length;
  unit->kind = 0;
  unit->isStatic = 0;
  std::memcpy(unit->name, name, 3);
  unit->name[3] = '\0';
  return unit;
}

std::uint8_t byteOf(std::uint32_t value, int index) {
  return static_cast<std::uint8_t>(value >> (8 * index));
}

}  // namespace

ProtocolUnit* create8bitProtocolUnit(uint8_t value) {
  return makeBitUnit({value}, "DXX");
}

ProtocolUnit* create16bitProtocolUnit(int16_t value) {
  const auto bits = static_cast<std::uint16_t>(value);
  return makeBitUnit({byteOf(bits, 1), byteOf(bits, 0)}, "DXX");
}

ProtocolUnit* create32bitProtocolUnit(uint32_t value) {
  return makeBitUnit({byteOf(value, 3), byteOf(value, 2), byteOf(value, 1), byteOf(value, 0)},
                     "DXX");
}

ProtocolUnit* createLightLedParamProtocolUnit(uint8_t red, uint8_t green, uint8_t blue,
                                              uint8_t special, int16_t time) {
  const auto bits = static_cast<std::uint16_t>(time);
  return makeBitUnit({red, green, blue, special, byteOf(bits, 1), byteOf(bits, 0)}, "LED");
}

int32_t countPlusBit(const ProtocolUnit* unit) {
  if (unit == nullptr || unit->data == nullptr) return 0;
  std::int32_t count = 0;
  for (std::int32_t i = 0; i < unit->length; ++i) count += unit->data[i] > 0 ? 1 : 0;
  return count;
}

void dumpBit(FrameNode*) {}

void dumpProtocolFrame(FrameNode*) {}
