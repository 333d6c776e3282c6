/* Reading replies received as zero-one bit arrays, one bit per byte (only the
 * lowest bit of each element counts). */
#ifndef NIMBARA_DEVICE_REPLY_BITS_H
#define NIMBARA_DEVICE_REPLY_BITS_H

#include <stdint.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** The `count` elements from `offset`, first element most significant, as a
 * number aligned to the low end. 0xFFFFFFFF (the same as 32 ones) when more
 * than 32 bits are asked for, when the run reaches past `length`, or when
 * `offset` is negative. A negative `count` gives 0. */
NIMBARA_API uint32_t decode(const uint8_t* bits, int32_t length, int32_t offset, int32_t count);

/** 1 when the first `length` elements hold an even number of ones, else 0; a
 * length of 0 or less counts nothing and gives 1. */
NIMBARA_API int32_t checkZeroOneDataArrayParity(const uint8_t* bits, int32_t length);

/** A debugging hook that does nothing. */
NIMBARA_API void dumpBitForUInt(uint32_t value);

NIMBARA_END_C

#endif
