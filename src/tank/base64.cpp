#include <nimbara/tank/base64.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr char kAlphabet[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kSkip = 65;  // not in the alphabet

constexpr std::array<std::uint8_t, 256> makeDecodingTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& entry : table) entry = kSkip;
  for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<std::uint8_t>(kAlphabet[i])] = i;
  return table;
}
constexpr std::array<std::uint8_t, 256> kDecodingTable = makeDecodingTable();

constexpr std::size_t kLineBytes = 48;  // 64 characters

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};

}  // namespace

char* NewBase64Encode(const void* input, size_t length, bool breakLines, size_t* outputLength) {
  if (input == nullptr && length > 0) return nullptr;
  const std::size_t groups = length / 3 + (length % 3 != 0 ? 1 : 0);
  if (groups > (SIZE_MAX - 1) / 6) return nullptr;  // the size below would overflow
  std::size_t characters = 4 * groups;
  if (breakLines) characters += 2 * (characters / 64);
  auto* out = static_cast<char*>(std::malloc(characters + 1));
  if (out == nullptr) return nullptr;

  const auto* in = static_cast<const std::uint8_t*>(input);
  const std::size_t lineLength = breakLines ? kLineBytes : length;
  std::size_t i = 0;
  std::size_t o = 0;
  std::size_t lineEnd = lineLength;
  for (;;) {
    if (lineEnd > length) lineEnd = length;
    for (; i + 2 < lineEnd; i += 3) {
      out[o++] = kAlphabet[in[i] >> 2];
      out[o++] = kAlphabet[((in[i] & 0x03) << 4) | (in[i + 1] >> 4)];
      out[o++] = kAlphabet[((in[i + 1] & 0x0F) << 2) | (in[i + 2] >> 6)];
      out[o++] = kAlphabet[in[i + 2] & 0x3F];
    }
    if (lineEnd == length) break;
    out[o++] = '\r';
    out[o++] = '\n';
    lineEnd += lineLength;
  }
  if (i + 1 < length) {
    out[o++] = kAlphabet[in[i] >> 2];
    out[o++] = kAlphabet[((in[i] & 0x03) << 4) | (in[i + 1] >> 4)];
    out[o++] = kAlphabet[(in[i + 1] & 0x0F) << 2];
    out[o++] = '=';
  } else if (i < length) {
    out[o++] = kAlphabet[in[i] >> 2];
    out[o++] = kAlphabet[(in[i] & 0x03) << 4];
    out[o++] = '=';
    out[o++] = '=';
  }
  out[o] = '\0';
  if (outputLength != nullptr) *outputLength = o;
  return out;
}

void* NewBase64Decode(const char* input, size_t length, size_t* outputLength) {
  if (input == nullptr) length = 0;
  if (length == SIZE_MAX) length = std::strlen(input);
  const std::size_t capacity = 3 * (length / 4 + (length % 4 != 0 ? 1 : 0));
  auto* out = static_cast<std::uint8_t*>(std::malloc(capacity > 0 ? capacity : 1));
  if (out == nullptr) return nullptr;

  const auto* in = reinterpret_cast<const std::uint8_t*>(input);
  std::size_t i = 0;
  std::size_t o = 0;
  while (i < length) {
    std::uint8_t v[4];
    std::size_t n = 0;
    while (i < length && n < 4) {
      const std::uint8_t value = kDecodingTable[in[i++]];
      if (value != kSkip) v[n++] = value;
    }
    if (n >= 2) out[o] = static_cast<std::uint8_t>((v[0] << 2) | (v[1] >> 4));
    if (n >= 3) out[o + 1] = static_cast<std::uint8_t>((v[1] << 4) | (v[2] >> 2));
    if (n >= 4) out[o + 2] = static_cast<std::uint8_t>((v[2] << 6) | v[3]);
    o += n - 1;  // unsigned: a pass that collects nothing steps back by one
  }
  if (outputLength != nullptr) *outputLength = o;
  return out;
}

namespace nimbara {

Data dataFromBase64String(std::string_view text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) > 127) return {};
  }
  std::size_t length = 0;
  std::unique_ptr<std::uint8_t, FreeDeleter> block(
      static_cast<std::uint8_t*>(NewBase64Decode(text.data(), text.size(), &length)));
  if (!block || length == SIZE_MAX) return {};
  return Data(block.get(), block.get() + length);
}

std::string base64EncodedString(const Data& bytes) {
  std::size_t length = 0;
  std::unique_ptr<char, FreeDeleter> text(
      NewBase64Encode(bytes.data(), bytes.size(), true, &length));
  return text ? std::string(text.get(), length) : std::string();
}

}  // namespace nimbara
