#include <nimbara/platform/wav_device.h>

#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstring>
#include <new>
#include <stdexcept>

#include "platform/backend_registry.h"

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

// A failed file goes, so that nothing truncated is left; a device or a pipe
// named as the output stays.
void removeIfRegular(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) std::remove(path.c_str());
}

}  // namespace

class WavDevice::Stream : public OutputStream {
 public:
  explicit Stream(WavDevice& device) : device_(device) {}
  std::int32_t play(const std::int16_t* samples, std::size_t frames,
                    const std::atomic<bool>&) override {
    return device_.write(samples, frames);
  }
  std::int32_t close() override { return device_.finishHeader(); }

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
  if (failed_) return NIMBARA_AUDIO_ERR_IO;
  if (file_ == nullptr) {
    file_ = std::fopen(path_.c_str(), "wb");
    if (file_ == nullptr) return failLocked();
    const auto header = wavHeader(0);
    if (std::fwrite(header.data(), 1, header.size(), file_) != header.size()) return failLocked();
  }
  try {
    *stream = std::make_unique<Stream>(*this);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::failLocked() {
  failed_ = true;
  if (file_ != nullptr) {
    std::fclose(file_);
    file_ = nullptr;
    removeIfRegular(path_);
  }
  progress_.notify_all();
  return NIMBARA_AUDIO_ERR_IO;
}

std::int32_t WavDevice::write(const std::int16_t* samples, std::size_t frames) {
  std::lock_guard lock(mutex_);
  if (file_ == nullptr || failed_) return NIMBARA_AUDIO_ERR_IO;
  if (!writeSamples(file_, samples, frames * 2)) return failLocked();
  frames_ += frames;
  progress_.notify_all();
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::finishHeader() {
  std::lock_guard lock(mutex_);
  ++closedStreams_;
  progress_.notify_all();
  if (file_ == nullptr || failed_) return NIMBARA_AUDIO_ERR_IO;
  const auto header = wavHeader(frames_);
  const bool ok = std::fseek(file_, 0, SEEK_SET) == 0 &&
                  std::fwrite(header.data(), 1, header.size(), file_) == header.size() &&
                  std::fseek(file_, 0, SEEK_END) == 0 && std::fflush(file_) == 0;
  return ok ? NIMBARA_AUDIO_OK : failLocked();
}

std::int32_t WavDevice::status() const {
  std::lock_guard lock(mutex_);
  return failed_ ? NIMBARA_AUDIO_ERR_IO : NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::routeName(std::string* name) {
  std::lock_guard lock(mutex_);
  *name = route_;
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::listOutputs(std::vector<OutputInfo>* outputs) {
  OutputInfo output;
  output.name = path_;
  output.description = "WAV file";
  if (const std::int32_t status = routeName(&output.route)) return status;
  output.isDefault = true;
  output.rate = NIMBARA_SAMPLE_RATE;
  output.exact = true;
  outputs->assign(1, std::move(output));
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::outputLevel(OutputLevel* level) {
  *level = {100.0, false};
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::playbackRate(PlaybackRate* rate) {
  *rate = {NIMBARA_SAMPLE_RATE, true, {}};
  return NIMBARA_AUDIO_OK;
}

// The file takes sound as fast as the disk allows, so a pause lasts until that
// much more sound has been written, a stream has closed, or the output failed:
// a waiting caller polls about as often as on a real-time output, without
// spinning. Real time bounds the wait, in case nothing is being written.
void WavDevice::sleep(double seconds) {
  std::unique_lock lock(mutex_);
  const std::size_t until = frames_ + static_cast<std::size_t>(seconds * NIMBARA_SAMPLE_RATE);
  const std::size_t closed = closedStreams_;
  progress_.wait_for(lock, std::chrono::duration<double>(seconds),
                     [&] { return frames_ >= until || closedStreams_ != closed || failed_; });
}

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
  if (!ok) removeIfRegular(path);
  return ok ? NIMBARA_AUDIO_OK : NIMBARA_AUDIO_ERR_IO;
}

std::shared_ptr<Backend> detail::makeWavBackend(const detail::BackendArgs& args) {
  if (args.argument.empty()) throw std::invalid_argument("wav needs a path: wav:PATH");
  return args.route.empty() ? std::make_shared<WavDevice>(args.argument)
                            : std::make_shared<WavDevice>(args.argument, args.route);
}

}  // namespace nimbara::platform
