// The audio file reader on any bytes, through a file in memory: it accepts or
// refuses with a reason, and what it accepts is whole frames of a sane format.
#include <nimbara/receiver/receiver.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int fd = memfd_create("input", 0);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
  nimbara::WavAudio audio;
  std::string error;
  if (nimbara::readWavFile("/proc/self/fd/" + std::to_string(fd), &audio, &error)) {
    if (audio.channels < 1 || audio.sampleRate < 8000 || audio.sampleRate > 192000) std::abort();
    if (audio.samples.empty() || audio.samples.size() % audio.channels != 0) std::abort();
  } else if (error.empty()) {
    std::abort();
  }
  close(fd);
  return 0;
}
