// A WAV file written as the sound comes, 16-bit stereo at the signal's rate,
// its header kept true after every write so that the file is whole whenever
// it is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

typedef struct sf_private_tag SNDFILE;

namespace nimbara::detail {

class WavWriter {
 public:
  WavWriter() = default;
  ~WavWriter() { close(); }
  WavWriter(const WavWriter&) = delete;
  WavWriter& operator=(const WavWriter&) = delete;

  bool open(const std::string& path);
  bool isOpen() const { return file_ != nullptr; }
  bool write(const std::int16_t* samples, std::size_t frames);
  // Everything written so far reaches the file.
  bool flush();
  void close();

 private:
  SNDFILE* file_ = nullptr;
};

}  // namespace nimbara::detail
