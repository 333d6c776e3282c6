// The WAV parser behind readWavFile, for bytes already in memory.
#pragma once

#include <nimbara/receiver/receiver.h>

#include <string>
#include <vector>

namespace nimbara::receiver {

// `name` is used in the messages only.
bool parseWav(const std::vector<unsigned char>& bytes, const std::string& name, WavAudio* audio,
              std::string* error);

}  // namespace nimbara::receiver
