// PulseAudio backend. A device keeps one connection on a threaded main loop
// for its route queries and all its streams, and makes a new one only when
// the server has gone. The queue's thread hands buffers over through a
// lock-free byte ring;
// a pump on the main loop's thread (the stream's write callback and a 5 ms
// timer) moves them into the server and publishes the playback position, so
// that the hand-over never takes the main loop's lock.
#include <nimbara/platform/pulse_device.h>

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/log.h"

namespace nimbara::platform {
namespace {

constexpr std::size_t kBytesPerFrame = 4;
constexpr double kFramesPerSecond = 44100.0;
constexpr std::uint32_t kTargetLatencyBytes = 35280;  // 200 ms
constexpr pa_usec_t kPumpPeriodUsec = 5000;
constexpr std::size_t kRingBytes = 1u << 16;  // more than all a queue's buffers
constexpr auto kStallLimit = std::chrono::seconds(2);

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

// ThreadSanitizer cannot see the main loop's lock inside libpulse, which is
// not built with it; these annotations tell it what the lock orders.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
void lockAcquired(pa_threaded_mainloop* loop) {
  __tsan_acquire(loop);
}
void lockReleasing(pa_threaded_mainloop* loop) {
  __tsan_release(loop);
}
#else
void lockAcquired(pa_threaded_mainloop*) {}
void lockReleasing(pa_threaded_mainloop*) {}
#endif

// Waits for a signal of the main loop; the caller holds its lock.
void waitForSignal(pa_threaded_mainloop* loop) {
  lockReleasing(loop);
  pa_threaded_mainloop_wait(loop);
  lockAcquired(loop);
}

// A callback runs on the main loop's thread, which holds the lock meanwhile:
// the same hand-over as Connection::Lock, on the same address. Callbacks find
// the loop through atomics: a plain read before the hand-over would itself be
// unordered for the sanitizer.
class InCallback {
 public:
  explicit InCallback(pa_threaded_mainloop* loop) : loop_(loop) { lockAcquired(loop_); }
  ~InCallback() { lockReleasing(loop_); }
  InCallback(const InCallback&) = delete;
  InCallback& operator=(const InCallback&) = delete;

 private:
  pa_threaded_mainloop* loop_;
};

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

}  // namespace

// A connected context on its own threaded main loop.
class PulseDevice::Connection {
 public:
  Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  ~Connection() {
    if (loop_ == nullptr) return;
    pa_threaded_mainloop_lock(loop_);
    lockAcquired(loop_);
    if (context_ != nullptr) {
      pa_context_set_state_callback(context_, nullptr, nullptr);
      pa_context_disconnect(context_);
      pa_context_unref(context_);
    }
    lockReleasing(loop_);
    pa_threaded_mainloop_unlock(loop_);
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
  }

  std::int32_t connect(const std::string& server) {
    loop_ = pa_threaded_mainloop_new();
    if (loop_ == nullptr || pa_threaded_mainloop_start(loop_) < 0)
      return NIMBARA_AUDIO_ERR_NO_MEMORY;
    Lock lock(loop_);
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "nimbara");
    if (context_ == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
    pa_context_set_state_callback(context_, &Connection::onState, this);
    if (pa_context_connect(context_, server.empty() ? nullptr : server.c_str(),
                           PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
      return NIMBARA_AUDIO_ERR_NO_SERVER;
    }
    for (;;) {
      const pa_context_state_t state = pa_context_get_state(context_);
      if (state == PA_CONTEXT_READY) return NIMBARA_AUDIO_OK;
      if (!PA_CONTEXT_IS_GOOD(state)) return NIMBARA_AUDIO_ERR_NO_SERVER;
      waitForSignal(loop_);
    }
  }

  // Runs an operation to its end; the caller holds the lock.
  bool await(pa_operation* operation) {
    if (operation == nullptr) return false;
    while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING && alive()) {
      waitForSignal(loop_);
    }
    const bool done = pa_operation_get_state(operation) == PA_OPERATION_DONE;
    pa_operation_unref(operation);
    return done;
  }

  // Waits, the lock held, until `done` holds, the server is lost or `limit`
  // has passed; returns `done`.
  template <typename Done>
  bool waitFor(Done done, pa_usec_t limit) {
    struct Alarm {
      std::atomic<Connection*> connection{nullptr};
      std::atomic<bool> rang{false};
    } alarm;
    alarm.connection.store(this, std::memory_order_release);
    auto onAlarm = [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* data) {
      auto* a = static_cast<Alarm*>(data);
      Connection* connection = a->connection.load(std::memory_order_acquire);
      InCallback scope(connection->loop());
      a->rang.store(true, std::memory_order_release);
      connection->signal();
    };
    pa_time_event* event =
        pa_context_rttime_new(context_, pa_rtclock_now() + limit, onAlarm, &alarm);
    while (!done() && alive() && !alarm.rang.load(std::memory_order_acquire)) {
      waitForSignal(loop_);
    }
    if (event != nullptr) pa_threaded_mainloop_get_api(loop_)->time_free(event);
    return done();
  }

  bool alive() const { return !lost_.load(std::memory_order_acquire); }
  const char* error() const { return pa_strerror(pa_context_errno(context_)); }
  void signal() { pa_threaded_mainloop_signal(loop_, 0); }

  pa_threaded_mainloop* loop() const { return loop_.load(std::memory_order_relaxed); }
  pa_context* context() const { return context_; }

  class Lock {
   public:
    explicit Lock(pa_threaded_mainloop* loop) : loop_(loop) {
      pa_threaded_mainloop_lock(loop_);
      lockAcquired(loop_);
    }
    ~Lock() {
      lockReleasing(loop_);
      pa_threaded_mainloop_unlock(loop_);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pa_threaded_mainloop* loop_;
  };

 private:
  static void onState(pa_context* context, void* self) {
    auto* connection = static_cast<Connection*>(self);
    InCallback scope(connection->loop_);
    if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
      connection->lost_.store(true, std::memory_order_release);
    }
    connection->signal();
  }

  std::atomic<pa_threaded_mainloop*> loop_{nullptr};
  pa_context* context_ = nullptr;
  std::atomic<bool> lost_{false};
};

namespace {

using Connection = PulseDevice::Connection;

// What the server and the sink tell about themselves.
struct SinkFacts {
  std::string route;
  PulseDevice::OutputLevel level;
  std::uint32_t rate = 0;
  bool pipewire = false;
};

std::string routeOf(const std::string& description, const std::string& port) {
  return port.empty() ? description : description + ": " + port;
}

PulseDevice::SinkSummary summaryOf(const pa_sink_info& info) {
  PulseDevice::SinkSummary sink;
  sink.name = info.name != nullptr ? info.name : "";
  sink.description = info.description != nullptr ? info.description : sink.name;
  if (info.active_port != nullptr && info.active_port->description != nullptr) {
    sink.port = info.active_port->description;
  }
  sink.route = routeOf(sink.description, sink.port);
  sink.rate = info.sample_spec.rate;
  return sink;
}

// A playback stream that asks for the preferred rate (0: no request).
pa_stream* newStream(pa_context* context, std::uint32_t preferredRate, const char* name) {
  const pa_sample_spec sampleSpec{PA_SAMPLE_S16LE, 44100, 2};
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

std::int32_t readSink(Connection& connection, const std::string& sink, SinkFacts* facts) {
  struct Query {
    std::atomic<Connection*> connection{nullptr};
    std::string sinkName;
    SinkFacts* facts;
    bool found = false;
  } query;
  query.sinkName = sink;
  query.facts = facts;
  query.connection.store(&connection, std::memory_order_release);  // the query is complete
  Connection::Lock lock(connection.loop());
  auto onServer = [](pa_context*, const pa_server_info* info, void* data) {
    auto* q = static_cast<Query*>(data);
    Connection* connection = q->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    if (info != nullptr) {
      q->facts->pipewire =
          info->server_name != nullptr && std::strstr(info->server_name, "PipeWire") != nullptr;
      if (q->sinkName.empty() && info->default_sink_name != nullptr) {
        q->sinkName = info->default_sink_name;
      }
    }
    connection->signal();
  };
  if (!connection.await(pa_context_get_server_info(connection.context(), onServer, &query)) ||
      query.sinkName.empty()) {
    return connection.alive() ? NIMBARA_AUDIO_ERR_NO_ROUTE : NIMBARA_AUDIO_ERR_NO_SERVER;
  }
  auto onSink = [](pa_context*, const pa_sink_info* info, int eol, void* data) {
    auto* q = static_cast<Query*>(data);
    Connection* connection = q->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    if (eol == 0 && info != nullptr) {
      q->found = true;
      q->facts->route = summaryOf(*info).route;
      q->facts->rate = info->sample_spec.rate;
      q->facts->level.volumePercent = 100.0 * pa_cvolume_max(&info->volume) / PA_VOLUME_NORM;
      q->facts->level.muted = info->mute != 0;
    }
    connection->signal();
  };
  if (!connection.await(pa_context_get_sink_info_by_name(connection.context(),
                                                         query.sinkName.c_str(), onSink, &query)) ||
      !query.found) {
    return connection.alive() ? NIMBARA_AUDIO_ERR_NO_ROUTE : NIMBARA_AUDIO_ERR_NO_SERVER;
  }
  return NIMBARA_AUDIO_OK;
}

// The rate of the sink with this index.
std::int32_t readSinkRate(Connection& connection, std::uint32_t index, std::uint32_t* rate) {
  struct Query {
    std::atomic<Connection*> connection{nullptr};
    std::uint32_t rate = 0;
  } query;
  query.connection.store(&connection, std::memory_order_release);
  auto onSink = [](pa_context*, const pa_sink_info* info, int eol, void* data) {
    auto* q = static_cast<Query*>(data);
    Connection* connection = q->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    if (eol == 0 && info != nullptr) q->rate = info->sample_spec.rate;
    connection->signal();
  };
  if (!connection.await(
          pa_context_get_sink_info_by_index(connection.context(), index, onSink, &query)) ||
      query.rate == 0) {
    return connection.alive() ? NIMBARA_AUDIO_ERR_NO_ROUTE : NIMBARA_AUDIO_ERR_NO_SERVER;
  }
  *rate = query.rate;
  return NIMBARA_AUDIO_OK;
}

// Plays up to 300 ms of silence on the sink with the rate request a transmission
// makes, and reads the sink's rate once the server has started playing it: a
// sink switches its rate only for a stream that really plays.
std::int32_t probeRate(Connection& connection, const std::string& sink, std::uint32_t preferredRate,
                       std::uint32_t* rate) {
  constexpr pa_usec_t kProbeLimitUsec = 2000000;
  constexpr pa_usec_t kRecheckUsec = 20000;
  constexpr std::uint32_t kStreamRate = 44100;
  struct Probe {
    std::atomic<Connection*> connection{nullptr};
    std::atomic<bool> started{false};
  } probe;
  probe.connection.store(&connection, std::memory_order_release);
  const std::vector<std::uint8_t> silence(13230 * kBytesPerFrame, 0);  // 300 ms
  Connection::Lock lock(connection.loop());
  if (!connection.alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
  pa_stream* stream = newStream(connection.context(), preferredRate, "nimbara rate probe");
  if (stream == nullptr) return NIMBARA_AUDIO_ERR_STREAM;
  auto onState = [](pa_stream*, void* data) {
    auto* p = static_cast<Probe*>(data);
    Connection* connection = p->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    connection->signal();
  };
  auto onStarted = [](pa_stream*, void* data) {
    auto* p = static_cast<Probe*>(data);
    Connection* connection = p->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    p->started.store(true, std::memory_order_release);
    connection->signal();
  };
  pa_stream_set_state_callback(stream, onState, &probe);
  pa_stream_set_started_callback(stream, onStarted, &probe);
  const pa_buffer_attr attr = playbackBufferAttr();
  auto ready = [&] {
    const pa_stream_state_t state = pa_stream_get_state(stream);
    return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
  };
  std::int32_t status = NIMBARA_AUDIO_OK;
  if (pa_stream_connect_playback(stream, sink.empty() ? nullptr : sink.c_str(), &attr,
                                 PA_STREAM_ADJUST_LATENCY, nullptr, nullptr) < 0 ||
      !connection.waitFor(ready, kProbeLimitUsec) ||
      pa_stream_get_state(stream) != PA_STREAM_READY) {
    status = NIMBARA_AUDIO_ERR_STREAM;
  } else {
    if (pa_stream_write(stream, silence.data(), silence.size(), nullptr, 0, PA_SEEK_RELATIVE) < 0 ||
        !connection.waitFor([&] { return probe.started.load(std::memory_order_acquire); },
                            kProbeLimitUsec)) {
      status = NIMBARA_AUDIO_ERR_STREAM;
    } else {
      // PipeWire may switch the sink a little after the stream has started:
      // another rate counts only once it has held for 200 ms of playing.
      const std::uint32_t index = pa_stream_get_device_index(stream);
      for (int look = 0; look < 10; ++look) {
        status = readSinkRate(connection, index, rate);
        if (status != NIMBARA_AUDIO_OK || *rate == kStreamRate) break;
        connection.waitFor([] { return false; }, kRecheckUsec);
      }
    }
  }
  if (!connection.alive()) status = NIMBARA_AUDIO_ERR_NO_SERVER;
  pa_stream_set_state_callback(stream, nullptr, nullptr);
  pa_stream_set_started_callback(stream, nullptr, nullptr);
  pa_stream_disconnect(stream);
  pa_stream_unref(stream);
  return status;
}

std::int32_t listAllSinks(Connection& connection, std::vector<PulseDevice::SinkSummary>* sinks) {
  struct Query {
    std::atomic<Connection*> connection{nullptr};
    std::string defaultSink;
    std::vector<PulseDevice::SinkSummary>* sinks = nullptr;
  } query;
  query.sinks = sinks;
  query.connection.store(&connection, std::memory_order_release);
  Connection::Lock lock(connection.loop());
  auto onServer = [](pa_context*, const pa_server_info* info, void* data) {
    auto* q = static_cast<Query*>(data);
    Connection* connection = q->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    if (info != nullptr && info->default_sink_name != nullptr)
      q->defaultSink = info->default_sink_name;
    connection->signal();
  };
  auto onSink = [](pa_context*, const pa_sink_info* info, int eol, void* data) {
    auto* q = static_cast<Query*>(data);
    Connection* connection = q->connection.load(std::memory_order_acquire);
    InCallback scope(connection->loop());
    if (eol == 0 && info != nullptr) q->sinks->push_back(summaryOf(*info));
    connection->signal();
  };
  if (!connection.await(pa_context_get_server_info(connection.context(), onServer, &query)) ||
      !connection.await(pa_context_get_sink_info_list(connection.context(), onSink, &query))) {
    return connection.alive() ? NIMBARA_AUDIO_ERR_NO_ROUTE : NIMBARA_AUDIO_ERR_NO_SERVER;
  }
  for (auto& sink : *sinks) sink.isDefault = sink.name == query.defaultSink;
  return NIMBARA_AUDIO_OK;
}

}  // namespace

class PulseDevice::Stream : public OutputStream {
 public:
  explicit Stream(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {
    loop_.store(connection_->loop(), std::memory_order_release);
  }
  ~Stream() override { close(); }

  std::int32_t open(const std::string& sink, std::uint32_t preferredRate) {
    Connection::Lock lock(connection_->loop());
    if (!connection_->alive()) return NIMBARA_AUDIO_ERR_NO_SERVER;
    stream_ = newStream(connection_->context(), preferredRate, "nimbara");
    if (stream_ == nullptr) return NIMBARA_AUDIO_ERR_STREAM;
    pa_stream_set_state_callback(stream_, &Stream::onState, this);
    pa_stream_set_write_callback(stream_, &Stream::onWritable, this);
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
    lead_ = std::max(actual->tlength, actual->prebuf) + 2 * 2940;
    timer_ = pa_context_rttime_new(connection_->context(), pa_rtclock_now() + kPumpPeriodUsec,
                                   &Stream::onTimer, this);
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
    if (!dead()) return NIMBARA_AUDIO_OK;
    playWithoutOutput(frames, stop);
    return NIMBARA_AUDIO_ERR_LOST;
  }

  std::int32_t close() override {
    if (closed_) return closeStatus_;
    closed_ = true;
    Connection::Lock lock(connection_->loop());
    if (timer_ != nullptr) {
      pa_threaded_mainloop_get_api(connection_->loop())->time_free(timer_);
      timer_ = nullptr;
    }
    if (stream_ == nullptr) return closeStatus_;
    if (!dead()) {
      // Let the tail that was handed over play out before the stream goes.
      pump();
      if (!connection_->await(pa_stream_drain(stream_, &Stream::onDrained, this)) || dead()) {
        closeStatus_ = NIMBARA_AUDIO_ERR_LOST;
      }
    } else if (handed_ > 0) {
      closeStatus_ = NIMBARA_AUDIO_ERR_LOST;
    }
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_write_callback(stream_, nullptr, nullptr);
    pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
    return closeStatus_;
  }

 private:
  static void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

  bool dead() const { return lost_.load(std::memory_order_acquire) || !connection_->alive(); }

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
    auto* s = static_cast<Stream*>(self);
    InCallback scope(s->loop_.load(std::memory_order_acquire));
    if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
      s->lost_.store(true, std::memory_order_release);
    }
    s->connection_->signal();
  }

  static void onWritable(pa_stream*, std::size_t, void* self) {
    auto* s = static_cast<Stream*>(self);
    InCallback scope(s->loop_.load(std::memory_order_acquire));
    s->pump();
  }

  static void onTimer(pa_mainloop_api*, pa_time_event* event, const struct timeval*, void* self) {
    auto* s = static_cast<Stream*>(self);
    InCallback scope(s->loop_.load(std::memory_order_acquire));
    s->pump();
    pa_context_rttime_restart(s->connection_->context(), event, pa_rtclock_now() + kPumpPeriodUsec);
  }

  static void onDrained(pa_stream*, int, void* self) {
    auto* s = static_cast<Stream*>(self);
    InCallback scope(s->loop_.load(std::memory_order_acquire));
    s->connection_->signal();
  }

  std::shared_ptr<Connection> connection_;
  std::atomic<pa_threaded_mainloop*> loop_{nullptr};  // the connection's, for the callbacks
  pa_stream* stream_ = nullptr;
  std::size_t ringBytesPromised_ = 0;
  std::int32_t closeStatus_ = NIMBARA_AUDIO_OK;
  pa_time_event* timer_ = nullptr;
  ByteRing ring_;
  std::size_t handed_ = 0;  // queue thread only
  std::size_t lead_ = 0;
  std::atomic<std::size_t> played_{0};
  std::atomic<bool> lost_{false};
  bool reported_ = false;
  bool closed_ = false;
};

PulseDevice::PulseDevice(std::string server, std::string sink)
    : server_(std::move(server)), sink_(std::move(sink)) {}

PulseDevice::~PulseDevice() = default;

std::int32_t PulseDevice::connection(std::shared_ptr<Connection>* out) {
  std::lock_guard lock(mutex_);
  if (!connection_ || !connection_->alive()) {
    std::shared_ptr<Connection> fresh;
    try {
      fresh = std::make_shared<Connection>();
    } catch (const std::bad_alloc&) {
      return NIMBARA_AUDIO_ERR_NO_MEMORY;
    }
    if (const std::int32_t status = fresh->connect(server_)) return status;
    connection_ = std::move(fresh);
  }
  *out = connection_;
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::openStream(const NimbaraStreamFormat&,
                                     std::unique_ptr<OutputStream>* stream) {
  std::shared_ptr<Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  try {
    auto opened = std::make_unique<Stream>(std::move(shared));
    if (const std::int32_t status =
            opened->open(sink_, preferredRate_.load(std::memory_order_relaxed))) {
      return status;
    }
    *stream = std::move(opened);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::readFacts(void* facts) {
  std::shared_ptr<Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  try {
    return readSink(*shared, sink_, static_cast<SinkFacts*>(facts));
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
}

std::int32_t PulseDevice::routeName(std::string* name) {
  SinkFacts facts;
  if (const std::int32_t status = readFacts(&facts)) return status;
  *name = facts.route;
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::outputLevel(OutputLevel* level) {
  SinkFacts facts;
  if (const std::int32_t status = readFacts(&facts)) return status;
  *level = facts.level;
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::setPreferredSampleRate(double rate) {
  if (!std::isfinite(rate) || rate < 1 || rate > 768000 || rate != std::floor(rate)) {
    return NIMBARA_AUDIO_ERR_INVALID;
  }
  preferredRate_.store(static_cast<std::uint32_t>(rate), std::memory_order_relaxed);
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::playbackRate(PlaybackRate* rate) {
  SinkFacts facts;
  if (const std::int32_t status = readFacts(&facts)) return status;
  std::shared_ptr<Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  PlaybackRate found;
  found.pipewire = facts.pipewire;
  try {
    if (const std::int32_t status = probeRate(
            *shared, sink_, preferredRate_.load(std::memory_order_relaxed), &found.sinkRate)) {
      return status;
    }
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  found.exact = found.sinkRate == static_cast<std::uint32_t>(kFramesPerSecond);
  *rate = found;
  return NIMBARA_AUDIO_OK;
}

std::int32_t PulseDevice::listSinks(std::vector<SinkSummary>* sinks) {
  std::shared_ptr<Connection> shared;
  if (const std::int32_t status = connection(&shared)) return status;
  try {
    std::vector<SinkSummary> found;
    if (const std::int32_t status = listAllSinks(*shared, &found)) return status;
    *sinks = std::move(found);
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

}  // namespace nimbara::platform
