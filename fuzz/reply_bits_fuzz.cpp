// decode and checkZeroOneDataArrayParity over arbitrary arrays and arguments:
// they never read outside the array, and valid requests give what a plain
// reading of the bits gives.
#include <nimbara/device/reply_bits.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 8) return 0;
  std::int32_t offset, count;
  std::memcpy(&offset, data, 4);
  std::memcpy(&count, data + 4, 4);
  // The array lives in a block of its own, so that any read past it is caught.
  const std::vector<std::uint8_t> bits(data + 8, data + size);
  const auto length = static_cast<std::int32_t>(bits.size());
  const std::uint32_t value = decode(bits.data(), length, offset, count);
  if (count >= 1 && count <= 32 && offset >= 0 && std::int64_t{offset} + count <= length) {
    std::uint32_t expected = 0;
    for (std::int32_t i = 0; i < count; ++i) expected = (expected << 1) | (bits[offset + i] & 1u);
    if (value != expected) std::abort();
  }
  int ones = 0;
  for (std::uint8_t bit : bits) ones += bit & 1;
  if (checkZeroOneDataArrayParity(bits.data(), length) != (ones % 2 == 0 ? 1 : 0)) std::abort();
  if (checkZeroOneDataArrayParity(bits.data(), -length) != 1 && length > 0) std::abort();
  return 0;
}
