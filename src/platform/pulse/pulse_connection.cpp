// The connection to the sound server and its main loop's lock.
#include "platform/pulse/pulse_connection.h"

#include <pulse/rtclock.h>

namespace nimbara::platform::pulse {

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

void waitForSignal(pa_threaded_mainloop* loop) {
  lockReleasing(loop);
  pa_threaded_mainloop_wait(loop);
  lockAcquired(loop);
}

Connection::~Connection() {
  if (loop() == nullptr) return;
  {
    Lock lock(*this);
    if (context_ != nullptr) {
      pa_context_set_state_callback(context_, nullptr, nullptr);
      pa_context_disconnect(context_);
      pa_context_unref(context_);
    }
  }
  pa_threaded_mainloop_stop(loop());
  pa_threaded_mainloop_free(loop());
}

std::int32_t Connection::connect(const std::string& server) {
  loop_ = pa_threaded_mainloop_new();
  if (loop() == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  if (pa_threaded_mainloop_start(loop()) < 0) {
    pa_threaded_mainloop_free(loop());
    loop_ = nullptr;
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  Lock lock(*this);
  context_ = pa_context_new(pa_threaded_mainloop_get_api(loop()), "nimbara");
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
    waitForSignal(loop());
  }
}

bool Connection::await(pa_operation* operation) {
  if (operation == nullptr) return false;
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING && alive()) {
    waitForSignal(loop());
  }
  const bool done = pa_operation_get_state(operation) == PA_OPERATION_DONE;
  pa_operation_unref(operation);
  return done;
}

void Connection::onState(pa_context* context, void* self) {
  auto* connection = static_cast<Connection*>(self);
  InCallback scope(connection->loop());
  if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
    connection->lost_.store(true, std::memory_order_release);
  }
  connection->signal();
}

Connection::Lock::Lock(const Connection& connection) : loop_(connection.loop()) {
  pa_threaded_mainloop_lock(loop_);
  lockAcquired(loop_);
}

Connection::Lock::~Lock() {
  lockReleasing(loop_);
  pa_threaded_mainloop_unlock(loop_);
}

Connection::Alarm::Alarm(Connection& connection, pa_usec_t limit) : CallbackData(connection) {
  event =
      pa_context_rttime_new(connection.context(), pa_rtclock_now() + limit, &Alarm::onTime, this);
}

Connection::Alarm::~Alarm() {
  Connection* owner = connection.load(std::memory_order_relaxed);
  if (event != nullptr) pa_threaded_mainloop_get_api(owner->loop())->time_free(event);
}

void Connection::Alarm::onTime(pa_mainloop_api*, pa_time_event*, const struct timeval*,
                               void* self) {
  answer<Alarm>(self, [](Alarm& alarm) { alarm.rung.store(true, std::memory_order_release); });
}

}  // namespace nimbara::platform::pulse
