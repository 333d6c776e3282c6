// The process-wide waveforms and fixed units, read by frame assembly and the
// renderer. Null until initProtocolUnit has built them.
#pragma once

#include <nimbara/frame/protocol_unit.h>
#include <nimbara/signal/signal_units.h>

namespace nimbara::detail {

extern WaveTable* waveNum01;  // "V01", 20 samples, played for every 0-bit
extern WaveTable* waveNum00;  // "V00", 40 samples, played for every 1-bit
extern ProtocolUnit* wakeUp;
extern ProtocolUnit* noSound;
extern ProtocolUnit* stopBits;
extern ProtocolUnit* data0x00;
extern ProtocolUnit* checkZeroBit;
extern ProtocolUnit* checkOneBit;

}  // namespace nimbara::detail
