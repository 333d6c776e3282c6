// Reading audio files through libsndfile, block by block.
#include <nimbara/audio/audio_file.h>
#include <nimbara/receiver/receiver.h>

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace nimbara {
namespace {

struct Closer {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using File = std::unique_ptr<SNDFILE, Closer>;

std::string shown(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

}  // namespace

AudioFileFormat readAudioFile(const std::string& path, const AudioBlock& block, const RawPcm& raw) {
  SF_INFO info{};
  if (raw.raw) {
    info.samplerate = raw.rate;
    info.channels = raw.channels;
    info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
  }
  File file(path == "-" ? sf_open_fd(STDIN_FILENO, SFM_READ, &info, SF_FALSE)
                        : sf_open(path.c_str(), SFM_READ, &info));
  if (!file) {
    const std::string why = sf_strerror(nullptr);
    if (path != "-" && access(path.c_str(), R_OK) != 0) {
      throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    }
    throw std::runtime_error(shown(path) + " is not an audio file libsndfile reads (" + why + ")");
  }
  if (info.channels <= 0 || info.samplerate < 8000 || info.samplerate > 192000) {
    throw std::runtime_error(shown(path) + ": " + std::to_string(info.samplerate) + " Hz with " +
                             std::to_string(info.channels) +
                             " channels cannot be decoded (8000 to 192000 Hz)");
  }
  const AudioFileFormat format{info.samplerate, info.channels};
  constexpr sf_count_t kFrames = 4096;
  const auto count = static_cast<std::size_t>(kFrames * info.channels);
  std::vector<float> samples(count);
  // 16-bit samples are read as they are stored and scaled here, in a loop
  // that vectorises: libsndfile's own conversion costs several times more
  // than everything the receiver does to a sample. The scale is a power of
  // two, so the floats are the same either way.
  const bool pcm16 = (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
  std::vector<short> stored(pcm16 ? count : 0);
  sf_count_t total = 0;
  for (;;) {
    sf_count_t n;
    if (pcm16) {
      n = sf_readf_short(file.get(), stored.data(), kFrames);
      const auto values = static_cast<std::size_t>(std::max<sf_count_t>(n, 0) * info.channels);
      using Shorts = short __attribute__((vector_size(8 * sizeof(short))));
      using Floats = float __attribute__((vector_size(8 * sizeof(float))));
      std::size_t i = 0;
      for (; i + 8 <= values; i += 8) {
        Shorts in;
        std::memcpy(&in, stored.data() + i, sizeof in);
        const Floats out = __builtin_convertvector(in, Floats) * (1.0f / 32768.0f);
        std::memcpy(samples.data() + i, &out, sizeof out);
      }
      for (; i < values; ++i) samples[i] = stored[i] * (1.0f / 32768.0f);
    } else {
      n = sf_readf_float(file.get(), samples.data(), kFrames);
    }
    if (n <= 0) break;
    total += n;
    block(samples.data(), static_cast<std::size_t>(n), format);
  }
  if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
    throw std::runtime_error(shown(path) + ": " + sf_strerror(file.get()));
  }
  if (total == 0) throw std::runtime_error(shown(path) + " holds no samples");
  return format;
}

}  // namespace nimbara

bool nimbara::readWavFile(const std::string& path, WavAudio* audio, std::string* error) {
  try {
    WavAudio read;
    const AudioFileFormat format = readAudioFile(
        path, [&](const float* samples, std::size_t frames, const AudioFileFormat& f) {
          read.samples.insert(read.samples.end(), samples, samples + frames * f.channels);
        });
    read.sampleRate = format.rate;
    read.channels = format.channels;
    *audio = std::move(read);
    return true;
  } catch (const std::exception& e) {
    if (error != nullptr) *error = e.what();
    return false;
  }
}
