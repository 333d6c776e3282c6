// Where things lie in a frame, in samples at the rate the signal is made at:
// what the receiver measures against, scaled to the rate it listens at.
#pragma once

#include <nimbara/signal/signal_format.h>

namespace nimbara::receiver {

constexpr double kReferenceRate = NIMBARA_SAMPLE_RATE;
// A 0-bit is one square period of this many samples; a 1-bit is twice as long.
constexpr double kZeroBitSamples = 20;
// Before the first payload: the wake-up level, then silence.
constexpr double kWakeUpAndSilence = 220 + 441;
// Between the repetitions: the stop level, then silence.
constexpr double kStopAndSilence = 5 + 441;

}  // namespace nimbara::receiver
