/* Base64 (RFC 4648 alphabet, "=" padding), one pass with table lookups. */
#ifndef NIMBARA_TANK_BASE64_H
#define NIMBARA_TANK_BASE64_H

#include <stdbool.h>
#include <stddef.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** Encodes `length` bytes. With breakLines, lines of 64 characters are
 * separated by CR LF (none after the last line). Returns a zero-terminated
 * malloc'ed block that the caller frees, and stores the number of characters
 * in *outputLength (if not null); null when memory runs out. */
NIMBARA_API char* NewBase64Encode(const void* input, size_t length, bool breakLines,
                                  size_t* outputLength);

/** Decodes `length` characters (SIZE_MAX: the input is zero-terminated).
 * Characters outside the alphabet, "=" and bytes from 128 up included, are
 * skipped. Returns a malloc'ed block of 3 bytes per 4 characters, rounded up,
 * that the caller frees, and stores the number of decoded bytes in
 * *outputLength. Two quirks are kept: after a complete group, trailing
 * characters outside the alphabet make that number one less than the bytes
 * written, and input that holds no alphabet character at all gives SIZE_MAX.
 * Null only when memory runs out. */
NIMBARA_API void* NewBase64Decode(const char* input, size_t length, size_t* outputLength);

NIMBARA_END_C

#ifdef __cplusplus
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nimbara {

using Data = std::vector<std::uint8_t>;

/** The bytes of a Base64 text. Empty for an empty text, for text that is not
 * pure ASCII (it cannot be converted), and for text that holds no alphabet
 * character at all (its decoded length, SIZE_MAX, cannot be honoured). */
NIMBARA_API Data dataFromBase64String(std::string_view text);

/** The Base64 text of bytes, with CR LF after every 64 characters. */
NIMBARA_API std::string base64EncodedString(const Data& bytes);

}  // namespace nimbara
#endif

#endif
