// NewBase64Decode on any bytes: never reads or writes out of bounds, and
// what it decodes encodes to text that decodes to the same bytes again.
#include <nimbara/tank/base64.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t length = 0;
  auto* decoded = static_cast<std::uint8_t*>(
      NewBase64Decode(reinterpret_cast<const char*>(data), size, &length));
  if (decoded == nullptr) std::abort();
  if (length != SIZE_MAX) {
    if (length > 3 * (size / 4 + 1)) std::abort();
    for (bool breakLines : {false, true}) {
      std::size_t textLength = 0;
      char* text = NewBase64Encode(decoded, length, breakLines, &textLength);
      std::size_t againLength = 0;
      auto* again = static_cast<std::uint8_t*>(NewBase64Decode(text, textLength, &againLength));
      if (againLength != length || std::memcmp(again, decoded, length) != 0) std::abort();
      std::free(again);
      std::free(text);
    }
  }
  std::free(decoded);
  return 0;
}
