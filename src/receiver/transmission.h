// Turns decoded payloads into the transmissions the receiver reports.
#pragma once

#include <nimbara/receiver/receiver.h>

#include "receiver/payload_decoder.h"

namespace nimbara::receiver {

// Below this margin a bit could as well have been the other one: a
// transmission holding such a bit is reported damaged, never as a command.
constexpr double kConfidentMargin = 0.25;
// The sum of both repetitions has no second reading to agree with: its
// weakest bit must win by more.
constexpr double kCombinedMargin = 0.4;

// An even number of 1s, and at least one bit.
bool evenParity(const std::string& bits);

// Whether `second` begins one stop level and one silence after `first` ends.
bool followsAfterSilence(const Payload& first, const Payload& second, double sampleRate);

// A transmission from its first repetition and, if it came, its second.
Transmission assemble(const Payload& first, const Payload* second, double sampleRate);

}  // namespace nimbara::receiver
