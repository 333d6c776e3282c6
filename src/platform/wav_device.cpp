#include <nimbara/platform/wav_device.h>

#include <array>
#include <cstring>

namespace nimbara::platform {
namespace {

void put32(std::uint8_t* at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

void put16(std::uint8_t* at, std::uint16_t value) {
  at[0] = static_cast<std::uint8_t>(value);
  at[1] = static_cast<std::uint8_t>(value >> 8);
}

// The canonical 44-byte header of 16-bit stereo PCM at 44100 Hz.
std::array<std::uint8_t, 44> wavHeader(std::size_t frames) {
  const auto dataBytes = static_cast<std::uint32_t>(frames * 4);
  std::array<std::uint8_t, 44> h{};
  std::memcpy(&h[0], "RIFF", 4);
  put32(&h[4], 36 + dataBytes);
  std::memcpy(&h[8], "WAVEfmt ", 8);
  put32(&h[16], 16);
  put16(&h[20], 1);  // PCM
  put16(&h[22], 2);
  put32(&h[24], 44100);
  put32(&h[28], 44100 * 4);
  put16(&h[32], 4);
  put16(&h[34], 16);
  std::memcpy(&h[36], "data", 4);
  put32(&h[40], dataBytes);
  return h;
}

// Little-endian samples whatever the host.
bool writeSamples(std::FILE* file, const std::int16_t* samples, std::size_t count) {
  std::uint8_t chunk[4096];
  while (count > 0) {
    const std::size_t n = std::min(count, sizeof chunk / 2);
    for (std::size_t i = 0; i < n; ++i)
      put16(&chunk[2 * i], static_cast<std::uint16_t>(samples[i]));
    if (std::fwrite(chunk, 2, n, file) != n) return false;
    samples += n;
    count -= n;
  }
  return true;
}

}  // namespace

class WavDevice::Stream : public OutputStream {
 public:
  explicit Stream(WavDevice& device) : device_(device) {}
  void play(const std::int16_t* samples, std::size_t frames, const std::atomic<bool>&) override {
    device_.write(samples, frames);
  }
  void close() override { device_.finishHeader(); }

 private:
  WavDevice& device_;
};

WavDevice::WavDevice(std::string path, std::string route)
    : path_(std::move(path)), route_(std::move(route)) {}

WavDevice::~WavDevice() {
  if (file_ != nullptr) std::fclose(file_);
}

std::int32_t WavDevice::openStream(const NimbaraStreamFormat&,
                                   std::unique_ptr<OutputStream>* stream) {
  std::lock_guard lock(mutex_);
  if (file_ == nullptr) {
    file_ = std::fopen(path_.c_str(), "wb");
    if (file_ == nullptr) return NIMBARA_AUDIO_ERR_IO;
    const auto header = wavHeader(0);
    if (std::fwrite(header.data(), 1, header.size(), file_) != header.size()) {
      return NIMBARA_AUDIO_ERR_IO;
    }
  }
  *stream = std::make_unique<Stream>(*this);
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::write(const std::int16_t* samples, std::size_t frames) {
  std::lock_guard lock(mutex_);
  if (file_ == nullptr || failed_) return NIMBARA_AUDIO_ERR_IO;
  if (!writeSamples(file_, samples, frames * 2)) {
    failed_ = true;
    return NIMBARA_AUDIO_ERR_IO;
  }
  frames_ += frames;
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::finishHeader() {
  std::lock_guard lock(mutex_);
  if (file_ == nullptr) return NIMBARA_AUDIO_ERR_IO;
  const auto header = wavHeader(frames_);
  const bool ok = std::fseek(file_, 0, SEEK_SET) == 0 &&
                  std::fwrite(header.data(), 1, header.size(), file_) == header.size() &&
                  std::fseek(file_, 0, SEEK_END) == 0 && std::fflush(file_) == 0;
  return ok && !failed_ ? NIMBARA_AUDIO_OK : NIMBARA_AUDIO_ERR_IO;
}

std::int32_t WavDevice::routeName(std::string* name) {
  std::lock_guard lock(mutex_);
  *name = route_;
  return NIMBARA_AUDIO_OK;
}

void WavDevice::sleep(double) {}

void WavDevice::setRoute(std::string route) {
  std::lock_guard lock(mutex_);
  route_ = std::move(route);
}

std::size_t WavDevice::frames() const {
  std::lock_guard lock(mutex_);
  return frames_;
}

std::int32_t writeWavFile(const std::string& path, const std::int16_t* samples,
                          std::size_t frames) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return NIMBARA_AUDIO_ERR_IO;
  const auto header = wavHeader(frames);
  bool ok = std::fwrite(header.data(), 1, header.size(), file) == header.size() &&
            writeSamples(file, samples, frames * 2);
  ok = std::fclose(file) == 0 && ok;
  return ok ? NIMBARA_AUDIO_OK : NIMBARA_AUDIO_ERR_IO;
}

}  // namespace nimbara::platform
