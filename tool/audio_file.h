// Audio files through libsndfile: whatever it reads (WAV of any width, u-law,
// A-law, IMA-ADPCM, float, FLAC, Ogg, MP3), standard input as "-", and raw
// signed 16-bit little-endian PCM as parec writes it. Read in blocks, so that
// memory does not grow with the file.
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tool {

struct RawFormat {
  bool raw = false;
  int rate = 44100;
  int channels = 2;
};

// Calls `block` with interleaved float samples, `frames` at a time, until the
// file ends; then returns its rate and channels. Throws std::runtime_error
// naming the file and the cause.
struct AudioInfo {
  int rate = 0;
  int channels = 0;
};
AudioInfo readAudio(const std::string& path, const RawFormat& raw,
                    const std::function<void(const float* samples, std::size_t frames,
                                             const AudioInfo& info)>& block);

// Writes interleaved 16-bit stereo at 44100 Hz as WAV to `path`, or to
// standard output for "-". A regular file is written beside the target and
// renamed into place; a device or a pipe is written in place.
void writeWav(const std::string& path, const std::vector<std::int16_t>& samples);

}  // namespace tool
