// A connection to the sound server on a threaded main loop, shared by a
// device's queries and streams, and the one way a libpulse callback opens:
// find the connection, take the loop's lock for the sanitizer, do its work,
// wake the waiting thread.
#pragma once

#include <nimbara/platform/audio_queue.h>

#include <pulse/pulseaudio.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace nimbara::platform::pulse {

// ThreadSanitizer cannot see the main loop's lock inside libpulse, which is
// not built with it; these tell it what the lock orders.
void lockAcquired(pa_threaded_mainloop* loop);
void lockReleasing(pa_threaded_mainloop* loop);

// Waits for a signal of the main loop; the caller holds its lock.
void waitForSignal(pa_threaded_mainloop* loop);

// A callback runs on the main loop's thread, which holds the lock meanwhile:
// the same hand-over as Connection::Lock, on the same address.
class InCallback {
 public:
  explicit InCallback(pa_threaded_mainloop* loop) : loop_(loop) { lockAcquired(loop_); }
  ~InCallback() { lockReleasing(loop_); }
  InCallback(const InCallback&) = delete;
  InCallback& operator=(const InCallback&) = delete;

 private:
  pa_threaded_mainloop* loop_;
};

class Connection;

// What a callback's data starts with: the connection, published with release
// once the rest is complete (a plain read would be unordered for the sanitizer).
struct CallbackData {
  explicit CallbackData(Connection& to) { connection.store(&to, std::memory_order_release); }
  std::atomic<Connection*> connection{nullptr};
};

// A connected context on its own threaded main loop.
class Connection {
 public:
  Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // server: a server string; empty for libpulse's own choice.
  std::int32_t connect(const std::string& server);

  // Runs an operation to its end; the caller holds the lock.
  bool await(pa_operation* operation);

  // Waits, the lock held, until `done` holds, the server is lost or `limit`
  // has passed; returns `done`.
  template <typename Done>
  bool waitFor(Done done, pa_usec_t limit) {
    Alarm alarm(*this, limit);
    while (!done() && alive() && !alarm.rang()) waitForSignal(loop());
    return done();
  }

  bool alive() const { return !lost_.load(std::memory_order_acquire); }
  void signal() { pa_threaded_mainloop_signal(loop(), 0); }

  pa_threaded_mainloop* loop() const { return loop_.load(std::memory_order_relaxed); }
  pa_context* context() const { return context_; }

  // The main loop's lock, held for a scope.
  class Lock {
   public:
    explicit Lock(const Connection& connection);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pa_threaded_mainloop* loop_;
  };

 private:
  // A timer on the main loop that wakes the waiting thread once.
  struct Alarm : CallbackData {
    Alarm(Connection& connection, pa_usec_t limit);
    ~Alarm();
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;
    bool rang() const { return rung.load(std::memory_order_acquire); }

    static void onTime(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* self);
    std::atomic<bool> rung{false};
    pa_time_event* event = nullptr;
  };

  static void onState(pa_context* context, void* self);

  std::atomic<pa_threaded_mainloop*> loop_{nullptr};
  pa_context* context_ = nullptr;
  std::atomic<bool> lost_{false};
};

// The body of every callback: `work` on the data under the callback's scope,
// then a signal to the waiting thread.
template <typename Data, typename Work>
void answer(void* data, Work work) {
  auto* d = static_cast<Data*>(data);
  Connection* connection = d->connection.load(std::memory_order_acquire);
  InCallback scope(connection->loop());
  work(*d);
  connection->signal();
}

// The status of a query that came to nothing: the server went, or it did not know.
inline std::int32_t queryFailure(const Connection& connection, std::int32_t unknown) {
  return connection.alive() ? unknown : NIMBARA_AUDIO_ERR_NO_SERVER;
}

}  // namespace nimbara::platform::pulse
