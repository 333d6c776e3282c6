// Writing the signal as WAV through libsndfile: a whole file at once, or as
// the sound comes.
#include <nimbara/audio/audio_file.h>
#include <nimbara/signal/signal_format.h>

#include <sndfile.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "audio/wav_writer.h"

namespace nimbara {
namespace {

SF_INFO signalFormat() {
  SF_INFO info{};
  info.samplerate = NIMBARA_SAMPLE_RATE;
  info.channels = NIMBARA_CHANNELS;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  return info;
}

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

void writeAudioFile(const std::string& path, const std::vector<std::int16_t>& samples) {
  Memory memory;
  SF_VIRTUAL_IO io = memoryIo();
  SF_INFO info = signalFormat();
  {
    std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> file(
        sf_open_virtual(&io, SFM_WRITE, &info, &memory), &sf_close);
    const auto frames = static_cast<sf_count_t>(samples.size() / NIMBARA_CHANNELS);
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

bool detail::WavWriter::open(const std::string& path) {
  close();
  SF_INFO info = signalFormat();
  file_ = sf_open(path.c_str(), SFM_WRITE, &info);
  if (file_ == nullptr) return false;
  sf_command(file_, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
  return true;
}

bool detail::WavWriter::write(const std::int16_t* samples, std::size_t frames) {
  const auto count = static_cast<sf_count_t>(frames);
  return file_ != nullptr && sf_writef_short(file_, samples, count) == count;
}

bool detail::WavWriter::flush() {
  if (file_ == nullptr) return false;
  sf_write_sync(file_);
  return sf_error(file_) == SF_ERR_NO_ERROR;
}

void detail::WavWriter::close() {
  if (file_ != nullptr) sf_close(file_);
  file_ = nullptr;
}

}  // namespace nimbara
