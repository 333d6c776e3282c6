#include <nimbara/platform/virtual_device.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>

#include <thread>
#include "platform/backend_registry.h"
#include "platform/simulated_output.h"

namespace nimbara::platform {
namespace {

using Clock = std::chrono::steady_clock;
constexpr double kRate = NIMBARA_SAMPLE_RATE;

// Appends within the capacity reserved up front: recording never allocates on
// the audio thread; what does not fit is not kept.
void append(std::vector<std::int16_t>& to, const std::int16_t* samples, std::size_t count) {
  const std::size_t room = to.capacity() - to.size();
  to.insert(to.end(), samples, samples + std::min(count, room));
}

}  // namespace

class VirtualDevice::Stream : public OutputStream {
 public:
  Stream(VirtualDevice& device) : device_(device) {
    if (device.options_.record) {
      enqueued_.reserve(device.options_.recordLimitFrames * NIMBARA_CHANNELS);
      played_.reserve(device.options_.recordLimitFrames * NIMBARA_CHANNELS);
    }
  }

  std::int32_t enqueued(const std::int16_t* samples, std::size_t frames) override {
    append(enqueued_, samples, frames * NIMBARA_CHANNELS);
    return NIMBARA_AUDIO_OK;
  }

  std::int32_t play(const std::int16_t* samples, std::size_t frames,
                    const std::atomic<bool>& stop) override {
    const double scale = device_.options_.timeScale;
    if (scale > 0) {
      // The buffer is played once the device clock has passed its last frame.
      if (framesPlayed_ == 0) started_ = Clock::now();
      // A buffer that comes after the device ran dry: a real output would
      // have played silence meanwhile, so it is counted, and the clock moves.
      const auto expectedStart =
          started_ + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(framesPlayed_ / kRate * scale));
      const auto late = Clock::now() - expectedStart;
      std::int32_t status = NIMBARA_AUDIO_OK;
      if (framesPlayed_ > 0 && late > std::chrono::milliseconds(5)) {
        device_.underruns_.fetch_add(1, std::memory_order_relaxed);
        started_ += late;
        if (device_.options_.reportRunDry) status = NIMBARA_AUDIO_ERR_RAN_DRY;
      }
      const auto due =
          started_ + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>((framesPlayed_ + frames) / kRate * scale));
      while (!stop.load(std::memory_order_acquire)) {
        const auto now = Clock::now();
        if (now >= due) break;
        std::this_thread::sleep_for(
            std::min<Clock::duration>(due - now, std::chrono::milliseconds(2)));
      }
      if (stop.load(std::memory_order_acquire)) return status;
      framesPlayed_ += frames;
      append(played_, samples, frames * NIMBARA_CHANNELS);
      return status;
    }
    framesPlayed_ += frames;
    append(played_, samples, frames * NIMBARA_CHANNELS);
    return NIMBARA_AUDIO_OK;
  }

  std::int32_t close() override { return device_.keep(enqueued_, played_); }

 private:
  VirtualDevice& device_;
  std::vector<std::int16_t> enqueued_;
  std::vector<std::int16_t> played_;
  std::size_t framesPlayed_ = 0;
  Clock::time_point started_;
};

VirtualDevice::VirtualDevice() : VirtualDevice(Options{}) {}

VirtualDevice::VirtualDevice(Options options)
    : options_(std::move(options)), route_(options_.route) {}

std::int32_t VirtualDevice::openStream(const NimbaraStreamFormat&,
                                       std::unique_ptr<OutputStream>* stream) {
  try {
    *stream = std::make_unique<Stream>(*this);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

std::int32_t VirtualDevice::routeName(std::string* name) {
  std::lock_guard lock(mutex_);
  *name = route_;
  return NIMBARA_AUDIO_OK;
}

std::int32_t VirtualDevice::listOutputs(std::vector<OutputInfo>* outputs) {
  return detail::listSimulatedOutput(*this, "virtual", "Virtual device", outputs);
}

std::int32_t VirtualDevice::outputLevel(OutputLevel* level) {
  return detail::simulatedLevel(level);
}

std::int32_t VirtualDevice::playbackRate(PlaybackRate* rate) {
  return detail::simulatedRate(rate);
}

std::int32_t VirtualDevice::setPreferredSampleRate(double rate) {
  std::lock_guard lock(mutex_);
  ++session_.preferredRateCalls;
  session_.preferredRate = rate;
  return NIMBARA_AUDIO_OK;
}

void VirtualDevice::sleep(double seconds) {
  if (options_.timeScale > 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds * options_.timeScale));
  } else {
    std::this_thread::yield();
  }
}

std::uint64_t VirtualDevice::underruns() const {
  return underruns_.load(std::memory_order_relaxed);
}

bool VirtualDevice::returnsBuffersAfterDispose() const {
  return returnsBuffers_.load(std::memory_order_acquire);
}

void VirtualDevice::setRoute(std::string route) {
  std::lock_guard lock(mutex_);
  route_ = std::move(route);
}

void VirtualDevice::setReturnsBuffersAfterDispose(bool returns) {
  returnsBuffers_.store(returns, std::memory_order_release);
}

std::int32_t VirtualDevice::keep(const std::vector<std::int16_t>& enqueued,
                                 const std::vector<std::int16_t>& played) {
  std::lock_guard lock(mutex_);
  try {
    enqueued_.insert(enqueued_.end(), enqueued.begin(), enqueued.end());
    played_.insert(played_.end(), played.begin(), played.end());
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;  // the recording is incomplete
  }
  return NIMBARA_AUDIO_OK;
}

std::vector<std::int16_t> VirtualDevice::enqueuedSamples() const {
  std::lock_guard lock(mutex_);
  return enqueued_;
}

std::vector<std::int16_t> VirtualDevice::playedSamples() const {
  std::lock_guard lock(mutex_);
  return played_;
}

std::int32_t VirtualDevice::takePlayed(std::vector<std::int16_t>* samples) {
  if (samples == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  std::lock_guard lock(mutex_);
  samples->swap(played_);
  played_.clear();
  enqueued_.clear();
  return NIMBARA_AUDIO_OK;
}

void VirtualDevice::clearRecordings() {
  std::lock_guard lock(mutex_);
  enqueued_.clear();
  played_.clear();
}

VirtualDevice::Session VirtualDevice::session() const {
  std::lock_guard lock(mutex_);
  return session_;
}

std::shared_ptr<Backend> detail::makeVirtualBackend(const detail::BackendArgs& args) {
  if (!args.argument.empty()) throw std::invalid_argument("virtual takes no argument");
  VirtualDevice::Options options;
  if (!args.route.empty()) options.route = args.route;
  return std::make_shared<VirtualDevice>(options);
}

}  // namespace nimbara::platform
