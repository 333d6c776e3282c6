// The WAV reader on any bytes: it accepts or refuses with a reason, and what
// it accepts is whole frames of a sane format.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "receiver/wav_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> bytes(data, data + size);
  nimbara::WavAudio audio;
  std::string error;
  if (nimbara::receiver::parseWav(bytes, "input", &audio, &error)) {
    if (audio.channels < 1 || audio.sampleRate < 8000 || audio.sampleRate > 192000) std::abort();
    if (audio.samples.empty() || audio.samples.size() % audio.channels != 0) std::abort();
  } else if (error.empty()) {
    std::abort();
  }
  return 0;
}
