#include <nimbara/receiver/receiver.h>

#include "receiver/wav_parse.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace nimbara {
namespace {

std::uint32_t le32(const unsigned char* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
std::uint16_t le16(const unsigned char* p) {
  return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

constexpr std::uint16_t kPcm = 1;
constexpr std::uint16_t kFloat = 3;
constexpr std::uint16_t kExtensible = 0xFFFE;

bool fail(std::string* error, const std::string& why) {
  if (error != nullptr) *error = why;
  return false;
}

}  // namespace

bool readWavFile(const std::string& path, WavAudio* audio, std::string* error) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return fail(error, "cannot read " + path);
  // In one read: a recording of minutes is hundreds of megabytes.
  std::vector<unsigned char> bytes(
      static_cast<std::size_t>(std::max<std::streamoff>(0, in.tellg())));
  in.seekg(0);
  if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
    return fail(error, "cannot read " + path);
  }
  return receiver::parseWav(bytes, path, audio, error);
}

bool receiver::parseWav(const std::vector<unsigned char>& bytes, const std::string& path,
                        WavAudio* audio, std::string* error) {
  if (bytes.size() < 12 || std::memcmp(bytes.data(), "RIFF", 4) != 0 ||
      std::memcmp(bytes.data() + 8, "WAVE", 4) != 0) {
    return fail(error, path + " is not a WAV file");
  }
  std::uint16_t format = 0, channels = 0, bits = 0;
  std::uint32_t rate = 0;
  const unsigned char* data = nullptr;
  std::size_t dataSize = 0;
  for (std::size_t at = 12; at + 8 <= bytes.size();) {
    const unsigned char* chunk = bytes.data() + at;
    const std::size_t size = le32(chunk + 4);
    const std::size_t available = std::min(size, bytes.size() - at - 8);
    if (std::memcmp(chunk, "fmt ", 4) == 0 && available >= 16) {
      format = le16(chunk + 8);
      channels = le16(chunk + 10);
      rate = le32(chunk + 12);
      bits = le16(chunk + 22);
      if (format == kExtensible && available >= 26) format = le16(chunk + 32);
    } else if (std::memcmp(chunk, "data", 4) == 0) {
      data = chunk + 8;
      dataSize = available;  // a truncated file keeps what it has
    }
    at += 8 + size + (size % 2);
  }
  if (format == 0) return fail(error, path + " has no format chunk");
  const bool pcm = format == kPcm && (bits == 16 || bits == 24 || bits == 32);
  const bool floating = format == kFloat && bits == 32;
  if (!pcm && !floating) {
    return fail(error, path + ": only 16-, 24- or 32-bit PCM and 32-bit float WAV files are read");
  }
  if (channels == 0 || rate < 8000 || rate > 192000) {
    return fail(error, path + ": needs at least one channel and a rate of 8000 to 192000 Hz");
  }
  const std::size_t width = bits / 8;
  const std::size_t frames = data == nullptr ? 0 : dataSize / (width * channels);
  if (frames == 0) return fail(error, path + " holds no samples");

  audio->sampleRate = rate;
  audio->channels = channels;
  audio->samples.resize(frames * channels);
  for (std::size_t i = 0; i < frames * channels; ++i) {
    const unsigned char* p = data + i * width;
    if (floating) {
      const std::uint32_t raw = le32(p);
      std::memcpy(&audio->samples[i], &raw, sizeof raw);
    } else if (bits == 16) {
      audio->samples[i] = static_cast<std::int16_t>(le16(p)) / 32768.0f;
    } else if (bits == 24) {  // placed in the top three bytes: the sign comes along
      const auto raw = static_cast<std::int32_t>((static_cast<std::uint32_t>(p[0]) << 8) |
                                                 (static_cast<std::uint32_t>(p[1]) << 16) |
                                                 (static_cast<std::uint32_t>(p[2]) << 24));
      audio->samples[i] = raw / 2147483648.0f;
    } else {
      audio->samples[i] = static_cast<std::int32_t>(le32(p)) / 2147483648.0f;
    }
  }
  return true;
}

}  // namespace nimbara
