// The playback stream. The queue's thread hands buffers over through a
// lock-free ring (spa_ringbuffer); the stream's process callback, on
// PipeWire's real-time thread, copies what the graph asks for and notes
// where the ring ran empty, and where the graph's clock moved on by more than
// the cycle before: cycles that ran without this stream (it was late) played
// silence in its place. Like the other backends, a run-dry between the first
// and the last sound of the stream fails it.
#include "platform/pipewire/pipewire_stream.h"

#include <nimbara/signal/signal_format.h>

#include <pipewire/pipewire.h>
#include <spa/node/io.h>
#include <spa/utils/ringbuffer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "common/log.h"
#include "platform/pipewire/pipewire_connect.h"
#include "platform/pipewire/pipewire_graph.h"

namespace nimbara::platform::pipewire {
namespace {

constexpr std::uint32_t kBytesPerFrame = 2 * NIMBARA_CHANNELS;
constexpr std::uint32_t kRingBytes = 1u << 17;  // a power of two, ~740 ms
constexpr std::size_t kLeadBytes = NIMBARA_SAMPLE_RATE / 5 * kBytesPerFrame;  // 200 ms ahead
constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);
constexpr auto kStartLimit = std::chrono::seconds(3);

class Playback : public OutputStream {
 public:
  Playback(std::string node, bool allowResampling)
      : node_(std::move(node)),
        allowResampling_(allowResampling),
        data_(new std::uint8_t[kRingBytes]) {
    spa_ringbuffer_init(&ring_);
  }
  ~Playback() override { close(); }

  // A probe only learns the graph's rate: it neither refuses nor logs.
  std::int32_t open(bool probe = false) {
    initOnce();
    loop_ = pw_thread_loop_new("nimbara", nullptr);
    if (loop_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE,
        "Production", PW_KEY_NODE_RATE, "1/44100", PW_KEY_NODE_FORCE_RATE, "true",
        PW_KEY_NODE_LATENCY, "2048/44100", PW_KEY_APP_NAME, "nimbara", nullptr);
    if (props == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    if (!node_.empty()) {
      // A named node or none: without it the session manager would play on
      // the default one instead.
      pw_properties_set(props, PW_KEY_TARGET_OBJECT, node_.c_str());
      pw_properties_set(props, PW_KEY_NODE_DONT_RECONNECT, "true");
    }
    static const pw_stream_events events = [] {
      pw_stream_events e{};
      e.version = PW_VERSION_STREAM_EVENTS;
      e.process = &Playback::onProcess;
      e.state_changed = &Playback::onState;
      e.io_changed = &Playback::onIoChanged;
      return e;
    }();
    if (const std::int32_t status =
            connectStream(loop_, "nimbara", props, &events, this, PW_DIRECTION_OUTPUT, &stream_)) {
      return status;
    }
    // The graph's rate shows in the first cycles: nothing of the signal is
    // handed over before it is known.
    const auto until = std::chrono::steady_clock::now() + kStartLimit;
    while (graphRate_.load(std::memory_order_acquire) == 0) {
      if (failed_.load(std::memory_order_acquire)) {
        // A stream that fails before it runs: a named node that is not there.
        return node_.empty() ? NIMBARA_AUDIO_ERR_NO_SERVER : NIMBARA_AUDIO_ERR_NO_SUCH_NAME;
      }
      if (std::chrono::steady_clock::now() > until) return NIMBARA_AUDIO_ERR_STREAM;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const std::uint32_t rate = graphRate_.load(std::memory_order_acquire);
    if (rate != NIMBARA_SAMPLE_RATE && !probe) {
      if (!allowResampling_) return NIMBARA_AUDIO_ERR_RATE;
      NIMBARA_LOG(" [WARN] the PipeWire graph runs at %u Hz: the signal is resampled", rate);
    }
    return NIMBARA_AUDIO_OK;
  }

  std::uint32_t graphRate() const { return graphRate_.load(std::memory_order_acquire); }

  std::int32_t play(const std::int16_t* samples, std::size_t frames,
                    const std::atomic<bool>& stop) override {
    noteSound(samples, frames);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(samples);
    std::size_t left = frames * kBytesPerFrame;
    while (left > 0 && !stop.load(std::memory_order_acquire)) {
      if (failed_.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_LOST;
      std::uint32_t index = 0;
      const std::int32_t filled = spa_ringbuffer_get_write_index(&ring_, &index);
      const std::size_t n =
          std::min<std::size_t>(left, kRingBytes - static_cast<std::uint32_t>(filled));
      if (n == 0) {
        pause();
        continue;
      }
      spa_ringbuffer_write_data(&ring_, data_.get(), kRingBytes, index & (kRingBytes - 1), bytes,
                                n);
      spa_ringbuffer_write_update(&ring_, index + n);
      bytes += n;
      left -= n;
      handed_ += n;
    }
    // Paced by the graph: at most the lead ahead of what it has taken.
    while (handed_ > consumed_.load(std::memory_order_acquire) + kLeadBytes &&
           !stop.load(std::memory_order_acquire) && !failed_.load(std::memory_order_acquire)) {
      pause();
    }
    if (failed_.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_LOST;
    return ranDryInSound() ? NIMBARA_AUDIO_ERR_RAN_DRY : NIMBARA_AUDIO_OK;
  }

  std::int32_t close() override {
    if (loop_ == nullptr) return NIMBARA_AUDIO_OK;
    std::int32_t status = NIMBARA_AUDIO_OK;
    if (stream_ != nullptr) {
      // What was handed over plays out first.
      const auto until = std::chrono::steady_clock::now() + kStartLimit;
      while (consumed_.load(std::memory_order_acquire) < handed_ &&
             !failed_.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < until) {
        pause();
      }
      if (consumed_.load(std::memory_order_acquire) < handed_) status = NIMBARA_AUDIO_ERR_LOST;
      if (status == NIMBARA_AUDIO_OK && ranDryInSound()) status = NIMBARA_AUDIO_ERR_RAN_DRY;
      pw_thread_loop_lock(loop_);
      pw_stream_destroy(stream_);
      stream_ = nullptr;
      pw_thread_loop_unlock(loop_);
    }
    pw_thread_loop_stop(loop_);
    pw_thread_loop_destroy(loop_);
    loop_ = nullptr;
    return status;
  }

 private:
  static void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

  void noteSound(const std::int16_t* samples, std::size_t frames) {
    for (std::size_t i = 0; i < frames * NIMBARA_CHANNELS; ++i) {
      if (samples[i] == 0) continue;
      if (soundStart_.load(std::memory_order_relaxed) == kNowhere) {
        soundStart_.store(handed_ + i * 2, std::memory_order_release);
      }
      soundEnd_ = handed_ + i * 2 + 2;
    }
  }

  bool ranDryInSound() {
    if (dryReported_) return false;
    const std::size_t at = dryAt_.load(std::memory_order_acquire);
    const std::size_t skipped = skippedAt_.load(std::memory_order_acquire);
    if (at != kNowhere && at < soundEnd_) {
      NIMBARA_LOG(" [ERROR] the PipeWire stream ran dry %zu bytes into the stream", at);
    } else if (skipped != kNowhere && skipped < soundEnd_) {
      NIMBARA_LOG(" [ERROR] the PipeWire graph ran cycles without the stream %zu bytes into it",
                  skipped);
    } else {
      return false;
    }
    dryReported_ = true;
    return true;
  }

  // Whether the sound had begun before `consumed` bytes and so a gap there
  // falls into it (whether it goes on after is judged once it is all handed).
  bool inSound(std::size_t consumed) const {
    const std::size_t start = soundStart_.load(std::memory_order_acquire);
    return start != kNowhere && consumed > start;
  }

  // Real-time thread: the driver's clock moved on by more than a cycle on
  // the same clock and rate, so the graph ran cycles without this stream.
  // Drivers advance the position by the last cycle's length or by the new
  // one where the quantum changes: a step up to the longer is no gap.
  void checkClock(std::size_t consumed) {
    const spa_io_position* position = position_.load(std::memory_order_acquire);
    if (position == nullptr) return;
    const spa_io_clock& clock = position->clock;
    if (lastDuration_ != 0 && clock.id == lastClock_ && clock.rate.denom == lastRate_ &&
        clock.position > lastPosition_ + std::max(lastDuration_, clock.duration) &&
        inSound(consumed) && skippedAt_.load(std::memory_order_relaxed) == kNowhere) {
      skippedAt_.store(consumed, std::memory_order_release);
    }
    lastClock_ = clock.id;
    lastRate_ = clock.rate.denom;
    lastPosition_ = clock.position;
    lastDuration_ = clock.duration;
  }

  // PipeWire's real-time thread: no allocation, no lock.
  static void onProcess(void* self) {
    auto* s = static_cast<Playback*>(self);
    pw_buffer* buffer = pw_stream_dequeue_buffer(s->stream_);
    if (buffer == nullptr) return;
    pw_time time{};
    if (pw_stream_get_time_n(s->stream_, &time, sizeof time) == 0 && time.rate.denom != 0) {
      s->graphRate_.store(time.rate.denom, std::memory_order_release);
    }
    spa_data& data = buffer->buffer->datas[0];
    auto* out = static_cast<std::uint8_t*>(data.data);
    if (out == nullptr) {
      pw_stream_queue_buffer(s->stream_, buffer);
      return;
    }
    std::uint32_t wanted = data.maxsize / kBytesPerFrame * kBytesPerFrame;
    if (buffer->requested != 0) {
      wanted = std::min<std::uint32_t>(
          wanted, static_cast<std::uint32_t>(buffer->requested) * kBytesPerFrame);
    }
    s->checkClock(s->consumed_.load(std::memory_order_relaxed));
    std::uint32_t index = 0;
    const std::int32_t available = spa_ringbuffer_get_read_index(&s->ring_, &index);
    const std::uint32_t n =
        std::min<std::uint32_t>(wanted, static_cast<std::uint32_t>(std::max(available, 0)));
    spa_ringbuffer_read_data(&s->ring_, s->data_.get(), kRingBytes, index & (kRingBytes - 1), out,
                             n);
    spa_ringbuffer_read_update(&s->ring_, index + n);
    const std::size_t consumed = s->consumed_.load(std::memory_order_relaxed) + n;
    if (n < wanted) {
      std::memset(out + n, 0, wanted - n);
      // Ran empty here: a gap if the sound had begun and goes on after it.
      if (s->inSound(consumed) && s->dryAt_.load(std::memory_order_relaxed) == kNowhere) {
        s->dryAt_.store(consumed, std::memory_order_release);
      }
    }
    s->consumed_.store(consumed, std::memory_order_release);
    data.chunk->offset = 0;
    data.chunk->stride = kBytesPerFrame;
    data.chunk->size = wanted;
    pw_stream_queue_buffer(s->stream_, buffer);
  }

  static void onIoChanged(void* self, std::uint32_t id, void* area, std::uint32_t size) {
    if (id != SPA_IO_Position) return;
    auto* position = area != nullptr && size >= sizeof(spa_io_position)
                         ? static_cast<const spa_io_position*>(area)
                         : nullptr;
    static_cast<Playback*>(self)->position_.store(position, std::memory_order_release);
  }

  static void onState(void* self, pw_stream_state, pw_stream_state state, const char*) {
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
      static_cast<Playback*>(self)->failed_.store(true, std::memory_order_release);
    }
  }

  const std::string node_;
  const bool allowResampling_;
  std::unique_ptr<std::uint8_t[]> data_;
  spa_ringbuffer ring_{};
  pw_thread_loop* loop_ = nullptr;
  pw_stream* stream_ = nullptr;
  std::size_t handed_ = 0;    // queue's thread
  std::size_t soundEnd_ = 0;  // queue's thread
  std::atomic<std::size_t> soundStart_{kNowhere};
  std::atomic<std::size_t> consumed_{0};
  std::atomic<std::size_t> dryAt_{kNowhere};
  std::atomic<std::size_t> skippedAt_{kNowhere};  // the first cycles run without the stream
  std::atomic<const spa_io_position*> position_{nullptr};
  // The real-time thread's view of the clock at the last cycle.
  std::uint32_t lastClock_ = 0;
  std::uint32_t lastRate_ = 0;
  std::uint64_t lastPosition_ = 0;
  std::uint64_t lastDuration_ = 0;
  std::atomic<std::uint32_t> graphRate_{0};
  std::atomic<bool> failed_{false};
  bool dryReported_ = false;
};

}  // namespace

std::int32_t openPlayback(const std::string& node, bool allowResampling,
                          std::unique_ptr<OutputStream>* stream) {
  try {
    auto opened = std::make_unique<Playback>(node, allowResampling);
    if (const std::int32_t status = opened->open()) return status;
    *stream = std::move(opened);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

std::int32_t probeRate(const std::string& node, std::uint32_t* rate) {
  try {
    Playback probe(node, true);
    if (const std::int32_t status = probe.open(true)) return status;
    *rate = probe.graphRate();
    return probe.close();
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
}

}  // namespace nimbara::platform::pipewire
