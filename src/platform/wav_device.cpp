#include <nimbara/platform/wav_device.h>

#include <nimbara/audio/audio_file.h>

#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <new>
#include <stdexcept>

#include "audio/wav_writer.h"
#include "platform/backend_registry.h"
#include "platform/simulated_output.h"

namespace nimbara::platform {
namespace {

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
    : path_(std::move(path)),
      route_(std::move(route)),
      file_(std::make_unique<nimbara::detail::WavWriter>()) {}

WavDevice::~WavDevice() = default;

std::int32_t WavDevice::openStream(const NimbaraStreamFormat&,
                                   std::unique_ptr<OutputStream>* stream) {
  std::lock_guard lock(mutex_);
  if (failed_) return NIMBARA_AUDIO_ERR_IO;
  if (!file_->isOpen() && !file_->open(path_)) return failLocked();
  try {
    *stream = std::make_unique<Stream>(*this);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::failLocked() {
  failed_ = true;
  if (file_->isOpen()) {
    file_->close();
    removeIfRegular(path_);
  }
  progress_.notify_all();
  return NIMBARA_AUDIO_ERR_IO;
}

std::int32_t WavDevice::write(const std::int16_t* samples, std::size_t frames) {
  std::lock_guard lock(mutex_);
  if (!file_->isOpen() || failed_) return NIMBARA_AUDIO_ERR_IO;
  if (!file_->write(samples, frames)) return failLocked();
  frames_ += frames;
  progress_.notify_all();
  return NIMBARA_AUDIO_OK;
}

std::int32_t WavDevice::finishHeader() {
  std::lock_guard lock(mutex_);
  ++closedStreams_;
  progress_.notify_all();
  if (!file_->isOpen() || failed_) return NIMBARA_AUDIO_ERR_IO;
  return file_->flush() ? NIMBARA_AUDIO_OK : failLocked();
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
  return detail::listSimulatedOutput(*this, path_, "WAV file", outputs);
}

std::int32_t WavDevice::outputLevel(OutputLevel* level) {
  return detail::simulatedLevel(level);
}

std::int32_t WavDevice::playbackRate(PlaybackRate* rate) {
  return detail::simulatedRate(rate);
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
  try {
    writeAudioFile(path, std::vector<std::int16_t>(samples, samples + NIMBARA_CHANNELS * frames));
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  } catch (const std::runtime_error&) {
    return NIMBARA_AUDIO_ERR_IO;
  }
  return NIMBARA_AUDIO_OK;
}

std::shared_ptr<Backend> detail::makeWavBackend(const detail::BackendArgs& args) {
  if (args.argument.empty()) throw std::invalid_argument("wav needs a path: wav:PATH");
  return args.route.empty() ? std::make_shared<WavDevice>(args.argument)
                            : std::make_shared<WavDevice>(args.argument, args.route);
}

}  // namespace nimbara::platform
