#include "audio_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace tool {
namespace {

struct Closer {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using File = std::unique_ptr<SNDFILE, Closer>;

std::string shown(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

}  // namespace

AudioInfo readAudio(const std::string& path, const RawFormat& raw,
                    const std::function<void(const float*, std::size_t, const AudioInfo&)>& block) {
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
    throw std::runtime_error(shown(path) + " is not an audio file libsndfile reads (" + why +
                             "); for raw PCM use --raw --rate R --channels C");
  }
  if (info.channels <= 0 || info.samplerate < 8000 || info.samplerate > 192000) {
    throw std::runtime_error(shown(path) + ": " + std::to_string(info.samplerate) + " Hz with " +
                             std::to_string(info.channels) +
                             " channels cannot be decoded (8000 to 192000 Hz)");
  }
  const AudioInfo result{info.samplerate, info.channels};
  constexpr sf_count_t kFrames = 4096;
  std::vector<float> samples(static_cast<std::size_t>(kFrames * info.channels));
  sf_count_t total = 0;
  for (;;) {
    const sf_count_t n = sf_readf_float(file.get(), samples.data(), kFrames);
    if (n <= 0) break;
    total += n;
    block(samples.data(), static_cast<std::size_t>(n), result);
  }
  if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
    throw std::runtime_error(shown(path) + ": " + sf_strerror(file.get()));
  }
  if (total == 0) throw std::runtime_error(shown(path) + " holds no samples");
  return result;
}

namespace {

// libsndfile writing into memory: a pipe cannot seek back to a WAV header, so
// the whole file is made first and then written out in one go.
struct Memory {
  std::vector<unsigned char> bytes;
  sf_count_t position = 0;
};

SF_VIRTUAL_IO memoryIo() {
  SF_VIRTUAL_IO io{};
  io.get_filelen = [](void* m) {
    return static_cast<sf_count_t>(static_cast<Memory*>(m)->bytes.size());
  };
  io.seek = [](sf_count_t offset, int whence, void* m) {
    auto* memory = static_cast<Memory*>(m);
    const sf_count_t base = whence == SEEK_SET   ? 0
                            : whence == SEEK_CUR ? memory->position
                                                 : static_cast<sf_count_t>(memory->bytes.size());
    memory->position = base + offset;
    return memory->position;
  };
  io.read = [](void*, sf_count_t, void*) -> sf_count_t { return 0; };
  io.write = [](const void* data, sf_count_t count, void* m) {
    auto* memory = static_cast<Memory*>(m);
    const auto end = static_cast<std::size_t>(memory->position + count);
    if (memory->bytes.size() < end) memory->bytes.resize(end);
    std::memcpy(memory->bytes.data() + memory->position, data, static_cast<std::size_t>(count));
    memory->position += count;
    return count;
  };
  io.tell = [](void* m) { return static_cast<Memory*>(m)->position; };
  return io;
}

bool writeAll(std::FILE* out, const std::vector<unsigned char>& bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
}

}  // namespace

void writeWav(const std::string& path, const std::vector<std::int16_t>& samples) {
  Memory memory;
  SF_VIRTUAL_IO io = memoryIo();
  SF_INFO info{};
  info.samplerate = 44100;
  info.channels = 2;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  {
    File file(sf_open_virtual(&io, SFM_WRITE, &info, &memory));
    const auto frames = static_cast<sf_count_t>(samples.size() / 2);
    if (!file || sf_writef_short(file.get(), samples.data(), frames) != frames) {
      throw std::runtime_error("cannot make the WAV file: " + std::string(sf_strerror(file.get())));
    }
  }
  const bool toStdout = path == "-";
  struct stat status {};
  const bool special = toStdout || (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
  const std::string target = special ? path : path + ".partial";
  errno = 0;
  bool ok = false;
  if (toStdout) {
    ok = writeAll(stdout, memory.bytes) && std::fflush(stdout) == 0;
  } else if (std::FILE* out = std::fopen(target.c_str(), "wb")) {
    ok = writeAll(out, memory.bytes);
    ok = std::fclose(out) == 0 && ok;
  }
  if (ok && !special) ok = std::rename(target.c_str(), path.c_str()) == 0;
  if (!ok) {
    const std::string why = errno != 0 ? std::strerror(errno) : "write error";
    if (!special) std::remove(target.c_str());
    throw std::runtime_error("cannot write " + (toStdout ? std::string("standard output") : path) +
                             ": " + why);
  }
}

}  // namespace tool
