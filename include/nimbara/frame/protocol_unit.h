/* Protocol units: the smallest pieces of a command frame, one element per byte. */
#ifndef NIMBARA_FRAME_PROTOCOL_UNIT_H
#define NIMBARA_FRAME_PROTOCOL_UNIT_H

#include <stdint.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** kind of a unit whose every element is one output sample; any other kind is a
 * bit unit, whose every element is one bit drawn as a whole bit waveform. */
#define NIMBARA_SAMPLE_UNIT 1u

typedef struct ProtocolUnit {
  uint8_t* data;    /**< exactly `length` elements, owned by the unit */
  int32_t length;   /**< number of elements */
  uint32_t kind;    /**< 1: sample unit; otherwise bit unit (constructors write 0) */
  char name[4];     /**< three letters and a zero byte, for log lines */
  uint8_t isStatic; /**< bit 0 set on the process-wide fixed units: frames never free them */
} ProtocolUnit;

struct FrameNode;

/** New bit units, most significant bit first, named "DXX". Each returns null
 * only when memory runs out. */
NIMBARA_API ProtocolUnit* create8bitProtocolUnit(uint8_t value);
NIMBARA_API ProtocolUnit* create16bitProtocolUnit(int16_t value);
NIMBARA_API ProtocolUnit* create32bitProtocolUnit(uint32_t value);

/** The 48-bit LED parameter "LED": red, green, blue, special, then time (ms) as
 * its 16-bit two's-complement pattern. Nothing is clamped here. */
NIMBARA_API ProtocolUnit* createLightLedParamProtocolUnit(uint8_t red, uint8_t green, uint8_t blue,
                                                          uint8_t special, int16_t time);

/** Number of elements that are not zero; 0 for a null unit. */
NIMBARA_API int32_t countPlusBit(const ProtocolUnit* unit);

/** Diagnostic hooks, deliberately empty: they read and print nothing. */
NIMBARA_API void dumpBit(struct FrameNode* frame);
NIMBARA_API void dumpProtocolFrame(struct FrameNode* frame);

NIMBARA_END_C

#endif
