// When the two repetitions of a transmission do not read alike, their sum
// may: aligned where their waveforms match best and with the same polarity,
// the bits add up while noise adds up only at random.
#pragma once

#include <optional>

#include "receiver/payload_decoder.h"

namespace nimbara::receiver {

// The sum's reading when it is a command read clearly, the second
// repetition is there to its end, and each repetition alone bears the
// reading out (a repetition that carried other bits does not). Both
// payloads need their `wave`; the reading's place is the first's.
std::optional<Payload> readSum(PayloadDecoder& decoder, const Payload& first, const Payload& second,
                               double sampleRate);

}  // namespace nimbara::receiver
