// The capture stream: it asks the graph for 44100 Hz as playback does, so
// that a transmission played while it listens is not refused for a graph it
// started at another rate. PipeWire's real-time thread copies each cycle's frames,
// converted to the signal's format by the stream, into a lock-free ring; the
// reader takes them out, polling while the ring is empty. A reader that falls
// a whole ring behind loses the newest frames, never blocks the graph.
#include <nimbara/signal/signal_format.h>

#include <pipewire/pipewire.h>
#include <spa/utils/ringbuffer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <thread>

#include "platform/pipewire/pipewire_connect.h"
#include "platform/pipewire/pipewire_graph.h"
#include "platform/pipewire/pipewire_stream.h"

namespace nimbara::platform::pipewire {
namespace {

constexpr std::uint32_t kBytesPerFrame = 2 * NIMBARA_CHANNELS;
constexpr std::uint32_t kRingBytes = 1u << 18;  // a power of two, ~1.5 s
constexpr auto kStartLimit = std::chrono::seconds(3);
constexpr auto kSilenceLimit = std::chrono::seconds(3);

class Capture : public CaptureStream {
 public:
  Capture() : data_(new std::uint8_t[kRingBytes]) { spa_ringbuffer_init(&ring_); }

  ~Capture() override {
    if (loop_ == nullptr) return;
    if (stream_ != nullptr) {
      pw_thread_loop_lock(loop_);
      pw_stream_destroy(stream_);
      pw_thread_loop_unlock(loop_);
    }
    pw_thread_loop_stop(loop_);
    pw_thread_loop_destroy(loop_);
  }

  std::int32_t open(const std::string& node, bool monitor) {
    initOnce();
    loop_ = pw_thread_loop_new("nimbara-capture", nullptr);
    if (loop_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    pw_properties* props =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
                          PW_KEY_MEDIA_ROLE, "Production", PW_KEY_NODE_RATE, "1/44100",
                          PW_KEY_NODE_LATENCY, "2048/44100", PW_KEY_APP_NAME, "nimbara", nullptr);
    if (props == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    if (monitor) pw_properties_set(props, PW_KEY_STREAM_CAPTURE_SINK, "true");
    if (!node.empty()) {
      pw_properties_set(props, PW_KEY_TARGET_OBJECT, node.c_str());
      pw_properties_set(props, PW_KEY_NODE_DONT_RECONNECT, "true");
    }
    static const pw_stream_events events = [] {
      pw_stream_events e{};
      e.version = PW_VERSION_STREAM_EVENTS;
      e.process = &Capture::onProcess;
      e.state_changed = &Capture::onState;
      return e;
    }();
    if (const std::int32_t status =
            connectStream(loop_, "accessory", props, &events, this, PW_DIRECTION_INPUT, &stream_)) {
      return status;
    }
    const auto until = std::chrono::steady_clock::now() + kStartLimit;
    while (!streaming_.load(std::memory_order_acquire)) {
      if (failed_.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_STREAM;
      if (std::chrono::steady_clock::now() > until) return NIMBARA_AUDIO_ERR_STREAM;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return NIMBARA_AUDIO_OK;
  }

  std::int32_t read(std::int16_t* samples, std::size_t frames) override {
    auto* out = reinterpret_cast<std::uint8_t*>(samples);
    std::size_t wanted = frames * kBytesPerFrame;
    // A graph that stops delivering (its driver gone) fails the read.
    auto giveUp = std::chrono::steady_clock::now() + kSilenceLimit;
    while (wanted > 0) {
      if (failed_.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_LOST;
      std::uint32_t index = 0;
      const std::int32_t available = spa_ringbuffer_get_read_index(&ring_, &index);
      const std::size_t n = std::min<std::size_t>(wanted, std::max(available, 0));
      if (n == 0) {
        if (std::chrono::steady_clock::now() > giveUp) return NIMBARA_AUDIO_ERR_LOST;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        continue;
      }
      spa_ringbuffer_read_data(&ring_, data_.get(), kRingBytes, index & (kRingBytes - 1), out,
                               static_cast<std::uint32_t>(n));
      spa_ringbuffer_read_update(&ring_, static_cast<std::int32_t>(index + n));
      out += n;
      wanted -= n;
      giveUp = std::chrono::steady_clock::now() + kSilenceLimit;
    }
    return NIMBARA_AUDIO_OK;
  }

 private:
  // PipeWire's real-time thread: no allocation, no lock.
  static void onProcess(void* self) {
    auto* s = static_cast<Capture*>(self);
    pw_buffer* buffer = pw_stream_dequeue_buffer(s->stream_);
    if (buffer == nullptr) return;
    const spa_data& data = buffer->buffer->datas[0];
    if (data.data != nullptr && data.chunk != nullptr) {
      const std::uint32_t offset = std::min(data.chunk->offset, data.maxsize);
      const std::uint32_t size = std::min(data.chunk->size, data.maxsize - offset);
      std::uint32_t index = 0;
      const std::int32_t filled = spa_ringbuffer_get_write_index(&s->ring_, &index);
      const std::uint32_t room = kRingBytes - static_cast<std::uint32_t>(std::max(filled, 0));
      const std::uint32_t n = std::min(size, room) / kBytesPerFrame * kBytesPerFrame;
      spa_ringbuffer_write_data(&s->ring_, s->data_.get(), kRingBytes, index & (kRingBytes - 1),
                                static_cast<const std::uint8_t*>(data.data) + offset, n);
      spa_ringbuffer_write_update(&s->ring_, static_cast<std::int32_t>(index + n));
    }
    pw_stream_queue_buffer(s->stream_, buffer);
  }

  static void onState(void* self, pw_stream_state, pw_stream_state state, const char*) {
    auto* s = static_cast<Capture*>(self);
    if (state == PW_STREAM_STATE_STREAMING) s->streaming_.store(true, std::memory_order_release);
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
      s->failed_.store(true, std::memory_order_release);
    }
  }

  std::unique_ptr<std::uint8_t[]> data_;
  spa_ringbuffer ring_{};
  pw_thread_loop* loop_ = nullptr;
  pw_stream* stream_ = nullptr;
  std::atomic<bool> streaming_{false};
  std::atomic<bool> failed_{false};
};

}  // namespace

std::int32_t openCapture(const std::string& node, bool monitor,
                         std::unique_ptr<CaptureStream>* stream) {
  try {
    auto opened = std::make_unique<Capture>();
    if (const std::int32_t status = opened->open(node, monitor)) return status;
    *stream = std::move(opened);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform::pipewire
