#include <nimbara/device/reply_bits.h>

#include <cstdint>

uint32_t decode(const uint8_t* bits, int32_t length, int32_t offset, int32_t count) {
  constexpr std::uint32_t kRejected = 0xFFFFFFFFu;
  if (count > 32) return kRejected;
  if (offset < 0) return kRejected;
  // No bit is read for a count of 0 or less; only the length check applies.
  if (count <= 0)
    return static_cast<std::int64_t>(length) < std::int64_t{offset} + count ? kRejected : 0;
  if (static_cast<std::int64_t>(length) < static_cast<std::int64_t>(offset) + count)
    return kRejected;
  if (bits == nullptr) return kRejected;
  std::uint32_t result = 0;
  for (std::int32_t i = 0; i < count; ++i) result = (result << 1) | (bits[offset + i] & 1u);
  return result;
}

int32_t checkZeroOneDataArrayParity(const uint8_t* bits, int32_t length) {
  std::int32_t ones = 0;
  for (std::int32_t i = 0; bits != nullptr && i < length; ++i) ones += bits[i] & 1u;
  return ones % 2 == 0 ? 1 : 0;
}

void dumpBitForUInt(uint32_t) {}
