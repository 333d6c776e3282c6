/* Audio files through libsndfile: whatever it reads (WAV of any width, u-law,
 * A-law, IMA-ADPCM, float, FLAC, Ogg, AIFF, MP3 where it has it), standard
 * input as "-", and headerless 16-bit little-endian PCM; and the signal
 * written as a 16-bit stereo WAV file at its rate. */
#ifndef NIMBARA_AUDIO_AUDIO_FILE_H
#define NIMBARA_AUDIO_AUDIO_FILE_H

#include <nimbara/export.h>

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace nimbara {

/** The rate and channel count of what is read. */
struct AudioFileFormat {
  int rate = 0;
  int channels = 0;
};

/** Headerless signed 16-bit little-endian PCM (as parec writes it), read when
 * `raw` is set, at the rate and channels given. */
struct RawPcm {
  bool raw = false;
  int rate = 44100;
  int channels = 2;
};

/** Receives interleaved float samples, `frames` at a time. */
using AudioBlock =
    std::function<void(const float* samples, std::size_t frames, const AudioFileFormat& format)>;

/** Reads an audio file ("-": standard input) block by block, so that memory
 * does not grow with the file, and returns its format. Throws
 * std::runtime_error naming the file and the cause: unreadable, not an audio
 * file libsndfile reads, a rate outside 8000 to 192000 Hz, no samples. */
NIMBARA_API AudioFileFormat readAudioFile(const std::string& path, const AudioBlock& block,
                                          const RawPcm& raw = {});

/** Writes interleaved 16-bit stereo samples at the signal's rate as a WAV
 * file ("-": standard output). A regular file is written beside the target
 * and renamed into place, so that a failure leaves nothing half written; a
 * device or a pipe is written in place. Throws std::runtime_error naming the
 * file and the cause. */
NIMBARA_API void writeAudioFile(const std::string& path, const std::vector<std::int16_t>& samples);

}  // namespace nimbara
#endif

#endif
