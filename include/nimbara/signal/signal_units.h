/* Signal units: the two bit waveforms and the six fixed units that every frame
 * shares, built once per process (or once after each clear). */
#ifndef NIMBARA_SIGNAL_SIGNAL_UNITS_H
#define NIMBARA_SIGNAL_SIGNAL_UNITS_H

#include <stdint.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** The waveform of one bit value: one period of a square wave. */
typedef struct WaveTable {
  int16_t* samples; /**< `length` samples */
  uint32_t length;
  char name[4];
} WaveTable;

/** Builds the waveforms and fixed units unless they exist. Safe to call from
 * several threads at once: exactly one of them builds. */
NIMBARA_API void initProtocolUnit(void);

/** Releases them. Must not run while a frame exists or a playback runs. */
NIMBARA_API void clearProtocolUnit(void);

NIMBARA_END_C

#endif
