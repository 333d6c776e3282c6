// The playback stream. The queue's thread hands buffers over through a
// lock-free byte ring; a pump on the main loop's thread (the stream's write
// callback and a 5 ms timer) moves them into the server and publishes the
// playback position, so that the hand-over never takes the main loop's lock.
// The server's underflow notices say where it ran dry; one that falls between
// the first and the last sound of the stream has put a gap into it.
#include "platform/pulse/pulse_stream.h"

#include <nimbara/signal/signal_format.h>

#include <pulse/rtclock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "common/log.h"

namespace nimbara::platform::pulse {
namespace {

constexpr std::size_t kBytesPerFrame = 2 * NIMBARA_CHANNELS;
constexpr double kFramesPerSecond = NIMBARA_SAMPLE_RATE;
constexpr std::uint32_t kTargetLatencyBytes = NIMBARA_SAMPLE_RATE / 5 * kBytesPerFrame;  // 200 ms
constexpr pa_usec_t kPumpPeriodUsec = 5000;
constexpr std::size_t kRingBytes = 1u << 16;  // more than all a queue's buffers
constexpr auto kStallLimit = std::chrono::seconds(2);
constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

// Single producer (the queue's thread), single consumer (the main loop's thread).
class ByteRing {
 public:
  ByteRing() : data_(new std::uint8_t[kRingBytes]) {}

  std::size_t space() const {
    return kRingBytes -
           (head_.load(std::memory_order_relaxed) - tail_.load(std::memory_order_acquire));
  }

  void push(const std::uint8_t* bytes, std::size_t count) {
    const std::size_t head = head_.load(std::memory_order_relaxed);
    const std::size_t offset = head % kRingBytes;
    const std::size_t first = std::min(count, kRingBytes - offset);
    std::memcpy(data_.get() + offset, bytes, first);
    std::memcpy(data_.get(), bytes + first, count - first);
    head_.store(head + count, std::memory_order_release);
  }

  // The next contiguous readable bytes, at most `limit`.
  std::size_t peek(const std::uint8_t** bytes, std::size_t limit) const {
    const std::size_t tail = tail_.load(std::memory_order_relaxed);
    const std::size_t available = head_.load(std::memory_order_acquire) - tail;
    const std::size_t offset = tail % kRingBytes;
    *bytes = data_.get() + offset;
    return std::min({available, limit, kRingBytes - offset});
  }

  void consume(std::size_t count) {
    tail_.store(tail_.load(std::memory_order_relaxed) + count, std::memory_order_release);
  }

 private:
  std::unique_ptr<std::uint8_t[]> data_;
  std::atomic<std::size_t> head_{0};
  std::atomic<std::size_t> tail_{0};
};

class PlaybackStream : public OutputStream, public CallbackData {
 public:
  explicit PlaybackStream(std::shared_ptr<Connection> connection)
      : CallbackData(*connection), connection_(std::move(connection)) {}
  ~PlaybackStream() override { close(); }

  std::int32_t open(const std::string& sink, std::uint32_t preferredRate) {
    Connection::Lock lock(*connection_);
    if (!connection_->alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
    stream_ = newPlaybackStream(connection_->context(), preferredRate, "nimbara");
    if (stream_ == nullptr) return NIMBARA_AUDIO_ERR_STREAM;
    pa_stream_set_state_callback(stream_, &PlaybackStream::onState, this);
    pa_stream_set_write_callback(stream_, &PlaybackStream::onWritable, this);
    pa_stream_set_underflow_callback(stream_, &PlaybackStream::onUnderflow, this);
    const pa_buffer_attr attr = playbackBufferAttr();
    const auto flags = static_cast<pa_stream_flags_t>(
        PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE);
    // No volume is passed: the stream plays at whatever the user has set.
    if (pa_stream_connect_playback(stream_, sink.empty() ? nullptr : sink.c_str(), &attr, flags,
                                   nullptr, nullptr) < 0) {
      return NIMBARA_AUDIO_ERR_STREAM;
    }
    for (;;) {
      const pa_stream_state_t state = pa_stream_get_state(stream_);
      if (state == PA_STREAM_READY) break;
      if (!PA_STREAM_IS_GOOD(state) || !connection_->alive()) return NIMBARA_AUDIO_ERR_STREAM;
      waitForSignal(connection_->loop());
    }
    // Keep the server's whole buffer and its start threshold covered, plus two
    // buffers, so that the queue never starves the stream.
    const pa_buffer_attr* actual = pa_stream_get_buffer_attr(stream_);
    lead_ =
        std::max(actual->tlength, actual->prebuf) + 2 * NIMBARA_FRAMES_PER_BUFFER * kBytesPerFrame;
    timer_ = pa_context_rttime_new(connection_->context(), pa_rtclock_now() + kPumpPeriodUsec,
                                   &PlaybackStream::onTimer, this);
    return NIMBARA_AUDIO_OK;
  }

  // The ring holds every buffer a queue can have in flight.
  std::int32_t prepareBuffer(std::uint32_t byteSize) override {
    ringBytesPromised_ += byteSize;
    return ringBytesPromised_ <= kRingBytes ? NIMBARA_AUDIO_OK : NIMBARA_AUDIO_ERR_NO_MEMORY;
  }

  std::int32_t play(const std::int16_t* samples, std::size_t frames,
                    const std::atomic<bool>& stop) override {
    const std::size_t bytes = frames * kBytesPerFrame;
    if (!dead()) {
      while (ring_.space() < bytes && !dead() && !stop.load(std::memory_order_acquire)) pause();
      noteSound(samples, frames);
      if (ring_.space() >= bytes) ring_.push(reinterpret_cast<const std::uint8_t*>(samples), bytes);
      handed_ += bytes;
      // A server that stops playing without going away counts as lost too.
      const auto giveUp = std::chrono::steady_clock::now() + kStallLimit;
      while (handed_ > played_.load(std::memory_order_acquire) + lead_ && !dead() &&
             !stop.load(std::memory_order_acquire)) {
        if (std::chrono::steady_clock::now() > giveUp) lost_.store(true, std::memory_order_release);
        pause();
      }
    }
    if (!dead()) return ranDryInSound() ? NIMBARA_AUDIO_ERR_RAN_DRY : NIMBARA_AUDIO_OK;
    playWithoutOutput(frames, stop);
    return NIMBARA_AUDIO_ERR_LOST;
  }

  std::int32_t close() override {
    if (closed_) return closeStatus_;
    closed_ = true;
    Connection::Lock lock(*connection_);
    if (timer_ != nullptr) {
      pa_threaded_mainloop_get_api(connection_->loop())->time_free(timer_);
      timer_ = nullptr;
    }
    if (stream_ == nullptr) return closeStatus_;
    if (!dead()) {
      // Let the tail that was handed over play out before the stream goes.
      pump();
      if (!connection_->await(pa_stream_drain(stream_, &PlaybackStream::onDrained, this)) ||
          dead()) {
        closeStatus_ = NIMBARA_AUDIO_ERR_LOST;
      }
    } else if (handed_ > 0) {
      closeStatus_ = NIMBARA_AUDIO_ERR_LOST;
    }
    if (closeStatus_ == NIMBARA_AUDIO_OK && ranDryInSound())
      closeStatus_ = NIMBARA_AUDIO_ERR_RAN_DRY;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_write_callback(stream_, nullptr, nullptr);
    pa_stream_set_underflow_callback(stream_, nullptr, nullptr);
    pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
    return closeStatus_;
  }

 private:
  static void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

  bool dead() const { return lost_.load(std::memory_order_acquire) || !connection_->alive(); }

  // Queue thread: where the stream's sound starts and ends, in bytes.
  void noteSound(const std::int16_t* samples, std::size_t frames) {
    const std::size_t count = frames * NIMBARA_CHANNELS;
    std::size_t first = count;
    std::size_t last = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (samples[i] == 0) continue;
      if (first == count) first = i;
      last = i + 1;
    }
    if (first == count) return;
    if (soundStart_.load(std::memory_order_relaxed) == kNowhere) {
      soundStart_.store(handed_ + first * 2, std::memory_order_release);
    }
    soundEnd_.store(handed_ + last * 2, std::memory_order_release);
  }

  // Whether the server ran dry after the sound had begun and before all of it
  // had played. Reported once: the queue keeps the first failure anyway.
  bool ranDryInSound() {
    if (dryReported_) return false;
    const std::size_t at = dryAt_.load(std::memory_order_acquire);
    if (at == kNowhere || at >= soundEnd_.load(std::memory_order_acquire)) return false;
    dryReported_ = true;
    NIMBARA_LOG(" [ERROR] the audio server ran dry %zu bytes into the stream", at);
    return true;
  }

  // The server is gone: the buffers still take their time, and go nowhere.
  void playWithoutOutput(std::size_t frames, const std::atomic<bool>& stop) {
    if (!reported_) {
      reported_ = true;
      NIMBARA_LOG(" [ERROR] audio output lost, playing on without sound");
    }
    const auto due =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(frames / kFramesPerSecond);
    while (std::chrono::steady_clock::now() < due && !stop.load(std::memory_order_acquire)) pause();
  }

  // On the main loop's thread: move what the ring holds into the server and
  // publish how far playback has got.
  void pump() {
    if (stream_ == nullptr || pa_stream_get_state(stream_) != PA_STREAM_READY) return;
    std::size_t writable = pa_stream_writable_size(stream_);
    while (writable > 0) {
      const std::uint8_t* bytes = nullptr;
      const std::size_t n = ring_.peek(&bytes, writable);
      if (n == 0) break;
      if (pa_stream_write(stream_, bytes, n, nullptr, 0, PA_SEEK_RELATIVE) < 0) break;
      ring_.consume(n);
      written_.store(written_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
      writable -= n;
    }
    pa_usec_t usec = 0;
    if (pa_stream_get_time(stream_, &usec) == 0) {
      const auto bytes = static_cast<std::size_t>(usec * kFramesPerSecond / 1e6) * kBytesPerFrame;
      if (bytes > played_.load(std::memory_order_relaxed)) {
        played_.store(bytes, std::memory_order_release);
      }
    }
  }

  static void onState(pa_stream* stream, void* self) {
    answer<PlaybackStream>(self, [&](PlaybackStream& s) {
      if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
        s.lost_.store(true, std::memory_order_release);
      }
    });
  }

  // The pump's callbacks wake no one: the queue's thread polls.
  static void onWritable(pa_stream*, std::size_t, void* self) {
    auto* s = static_cast<PlaybackStream*>(self);
    InCallback scope(s->connection.load(std::memory_order_acquire)->loop());
    s->pump();
  }

  static void onTimer(pa_mainloop_api*, pa_time_event* event, const struct timeval*, void* self) {
    auto* s = static_cast<PlaybackStream*>(self);
    InCallback scope(s->connection.load(std::memory_order_acquire)->loop());
    s->pump();
    pa_context_rttime_restart(s->connection_->context(), event, pa_rtclock_now() + kPumpPeriodUsec);
  }

  // Main loop's thread: the server played everything it had. The position is
  // the server's own where it tells it (PulseAudio), else all that was written
  // so far. Everything before it had been handed over, so whether the sound
  // had begun is known here; the earliest such run-dry is the one to judge.
  static void onUnderflow(pa_stream* stream, void* self) {
    auto* s = static_cast<PlaybackStream*>(self);
    const std::int64_t index = pa_stream_get_underflow_index(stream);
    const std::size_t at =
        index >= 0 ? static_cast<std::size_t>(index) : s->written_.load(std::memory_order_relaxed);
    const std::size_t start = s->soundStart_.load(std::memory_order_acquire);
    if (start == kNowhere || at <= start) return;
    if (at < s->dryAt_.load(std::memory_order_relaxed)) {
      s->dryAt_.store(at, std::memory_order_release);
    }
  }

  static void onDrained(pa_stream*, int, void* self) {
    answer<PlaybackStream>(self, [](PlaybackStream&) {});
  }

  std::shared_ptr<Connection> connection_;
  pa_stream* stream_ = nullptr;
  std::size_t ringBytesPromised_ = 0;
  std::int32_t closeStatus_ = NIMBARA_AUDIO_OK;
  pa_time_event* timer_ = nullptr;
  ByteRing ring_;
  std::size_t handed_ = 0;  // queue thread only
  std::size_t lead_ = 0;
  std::atomic<std::size_t> played_{0};
  std::atomic<bool> lost_{false};
  std::atomic<std::size_t> written_{0};            // main loop's thread
  std::atomic<std::size_t> soundStart_{kNowhere};  // set by the queue's thread
  std::atomic<std::size_t> soundEnd_{0};           // set by the queue's thread
  std::atomic<std::size_t> dryAt_{kNowhere};       // the first run-dry after the sound began
  bool dryReported_ = false;                       // queue's thread
  bool reported_ = false;
  bool closed_ = false;
};

}  // namespace

pa_stream* newPlaybackStream(pa_context* context, std::uint32_t preferredRate, const char* name) {
  const pa_sample_spec sampleSpec{PA_SAMPLE_S16LE, NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS};
  pa_proplist* properties = pa_proplist_new();
  if (properties == nullptr) return nullptr;
  if (preferredRate != 0) {
    // PipeWire runs its graph at a stream's node.rate when that rate is allowed.
    pa_proplist_sets(properties, "node.rate", ("1/" + std::to_string(preferredRate)).c_str());
  }
  pa_stream* stream = pa_stream_new_with_proplist(context, name, &sampleSpec, nullptr, properties);
  pa_proplist_free(properties);
  return stream;
}

// A playback stream's buffering: about 200 ms asked of the server, the rest its
// own choice. pipewire-pulse keeps only part of that as its buffer (a 50 ms
// request left it 37 ms, and a client thread delayed that long under load
// made it underrun and insert a quantum of silence); the accessory does not
// care how late the sound starts, only that it is whole.
pa_buffer_attr playbackBufferAttr() {
  pa_buffer_attr attr{};
  attr.maxlength = static_cast<std::uint32_t>(-1);
  attr.tlength = kTargetLatencyBytes;
  attr.prebuf = static_cast<std::uint32_t>(-1);
  attr.minreq = static_cast<std::uint32_t>(-1);
  attr.fragsize = static_cast<std::uint32_t>(-1);
  return attr;
}

std::int32_t openPlayback(std::shared_ptr<Connection> connection, const std::string& sink,
                          std::uint32_t preferredRate, std::unique_ptr<OutputStream>* stream) {
  try {
    auto opened = std::make_unique<PlaybackStream>(std::move(connection));
    if (const std::int32_t status = opened->open(sink, preferredRate)) return status;
    *stream = std::move(opened);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::pulse
