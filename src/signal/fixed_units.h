// The process-wide waveforms and fixed units, read by frame assembly and the
// renderer. Null until initProtocolUnit has built them.
//
// A set that is cleared while frames still exist is kept until the last of
// them is released, so that clearing never pulls units out from under a
// frame or a playback; the renderer keeps the waveforms it started with.
#pragma once

#include <nimbara/frame/protocol_unit.h>
#include <nimbara/signal/signal_units.h>

#include <atomic>
#include <shared_mutex>

namespace nimbara::detail {

extern std::atomic<WaveTable*> waveNum01;  // "V01", 20 samples, played for every 0-bit
extern std::atomic<WaveTable*> waveNum00;  // "V00", 40 samples, played for every 1-bit
extern std::atomic<ProtocolUnit*> wakeUp;
extern std::atomic<ProtocolUnit*> noSound;
extern std::atomic<ProtocolUnit*> stopBits;
extern std::atomic<ProtocolUnit*> data0x00;
extern std::atomic<ProtocolUnit*> checkZeroBit;
extern std::atomic<ProtocolUnit*> checkOneBit;

// Held shared while a frame is built from the fixed units; clearing them
// takes it exclusively.
std::shared_lock<std::shared_mutex> useFixedUnits();

// Frames in existence, counted by frame assembly and release.
void frameBuilt();
void frameReleased();

}  // namespace nimbara::detail
