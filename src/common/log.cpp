// One ordered log. Audio threads format into a fixed slot of a bounded
// lock-free queue and never wait (a full queue drops their line and counts
// it); a log thread hands those lines to the sink. Other threads deliver
// their line in place, after whatever the audio threads queued before it, so
// a line is out when the call that wrote it returns. A build without threads
// (NIMBARA_SINGLE_THREADED, e.g. WebAssembly without shared memory) has no
// audio thread to wait for and starts no log thread.
#include "common/log.h"

#include "common/bounded_queue.h"

#include <nimbara/log.h>

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#ifndef NIMBARA_SINGLE_THREADED
#define NIMBARA_SINGLE_THREADED 0
#endif

namespace nimbara {
namespace {

thread_local bool tlsAudioThread = false;
thread_local bool tlsInSink = false;

void writeToStderr(std::string_view line) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string out;
  out.reserve(line.size() + 64);
  char prefix[128];
  std::snprintf(prefix, sizeof prefix, "%s.%03d %s[%d] ", stamp, static_cast<int>(millis),
                program_invocation_short_name, static_cast<int>(getpid()));
  out += prefix;
  out += line;
  out += '\n';
  std::fwrite(out.data(), 1, out.size(), stderr);
}

class LogPipe {
 public:
  static constexpr std::size_t kLineMax = 256;

  LogPipe() : sink_(writeToStderr) {
#if !NIMBARA_SINGLE_THREADED
    try {
      std::thread([this] { run(); }).detach();
    } catch (...) {
      // No delivery thread: audio threads' lines wait for the next line
      // logged elsewhere, or for a flush.
    }
#endif
    std::atexit([] {
      if (LogPipe* pipe = instance()) pipe->flush();
    });
  }

  // Null while the pipe cannot be made (out of memory): logging is skipped
  // and the next line tries again. Never destroyed: audio threads may still
  // log while the process exits.
  static LogPipe* instance() {
    static std::atomic<LogPipe*> pipe{nullptr};
    static std::mutex making;
    if (LogPipe* made = pipe.load(std::memory_order_acquire)) return made;
    std::lock_guard lock(making);
    if (pipe.load(std::memory_order_relaxed) == nullptr) {
      pipe.store(new (std::nothrow) LogPipe, std::memory_order_release);
    }
    return pipe.load(std::memory_order_relaxed);
  }

  bool silent() const {
    return !hasSink_.load(std::memory_order_acquire);
  }

  void write(const char* text, std::size_t len) {
    if (tlsInSink) {  // a sink that logs: deliver in place, in order
      deliver(std::string_view(text, len));
      return;
    }
    if (!tlsAudioThread) {
      // Lines the audio thread queued before this one go first.
      std::lock_guard lock(sinkMutex_);
      drainLocked();
      deliver(std::string_view(text, len));
      return;
    }
    Line line;
    line.len = static_cast<std::uint32_t>(len < kLineMax ? len : kLineMax);
    std::memcpy(line.text, text, line.len);
    if (!lines_.tryPush(line)) {
      dropped_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    wake_.fetch_add(1, std::memory_order_release);
    wake_.notify_one();
  }

  void flush() {
    std::uint64_t pushed = lines_.pushed();
    if (tlsInSink) return;
    std::lock_guard lock(sinkMutex_);
    while (drained_ < pushed) {
      if (!drainLocked()) std::this_thread::yield();  // a push still being written
    }
  }

  void setSink(LogSink sink) {
    flush();
    std::lock_guard lock(sinkMutex_);
    sink_ = std::move(sink);
    hasSink_.store(static_cast<bool>(sink_), std::memory_order_release);
  }

  unsigned long long dropped() const {
    return dropped_.load(std::memory_order_relaxed);
  }

 private:
  struct Line {
    std::uint32_t len = 0;
    char text[kLineMax];
  };

  // Delivers every queued line; the caller holds sinkMutex_.
  bool drainLocked() {
    bool any = false;
    Line line;
    while (lines_.tryPop(&line)) {
      deliver(std::string_view(line.text, line.len));
      ++drained_;
      any = true;
    }
    return any;
  }

  void deliver(std::string_view line) {
    if (!sink_) return;
    tlsInSink = true;
    try {
      sink_(line);
    } catch (...) {
      // A failing sink loses its line; the library goes on.
    }
    tlsInSink = false;
  }

  // Delivers the audio threads' lines when no other thread logs.
  void run() {
    for (;;) {
      const std::uint32_t wake = wake_.load(std::memory_order_acquire);
      {
        std::lock_guard lock(sinkMutex_);
        drainLocked();
      }
      wake_.wait(wake, std::memory_order_acquire);
    }
  }

  detail::BoundedQueue<Line, 1024> lines_;
  std::atomic<std::uint32_t> wake_{0};
  std::atomic<unsigned long long> dropped_{0};
  std::atomic<bool> hasSink_{true};
  std::mutex sinkMutex_;
  std::uint64_t drained_ = 0;  // under sinkMutex_
  LogSink sink_;
};

}  // namespace

void setLogSink(LogSink sink) {
  if (LogPipe* pipe = LogPipe::instance()) pipe->setSink(std::move(sink));
}
void flushLog() {
  if (LogPipe* pipe = LogPipe::instance()) pipe->flush();
}
unsigned long long droppedLogLines() {
  const LogPipe* pipe = LogPipe::instance();
  return pipe != nullptr ? pipe->dropped() : 0;
}

namespace detail {

void log(const char* format, ...) {
  char line[LogPipe::kLineMax];
  LogPipe* pipe = LogPipe::instance();
  if (pipe == nullptr || pipe->silent()) return;
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (n < 0) return;
  const std::size_t len = static_cast<std::size_t>(n) < sizeof line ? n : sizeof line - 1;
  pipe->write(line, len);
}

void markAudioThread() {
  tlsAudioThread = true;
}
bool isAudioThread() {
  return tlsAudioThread;
}

}  // namespace detail
}  // namespace nimbara

void nimbaraSetLogSink(NimbaraLogSink sink, void* user) {
  if (sink == nullptr) {
    nimbara::setLogSink({});
    return;
  }
  try {
    nimbara::setLogSink([sink, user](std::string_view line) {
      // Lines are at most a slot long: one copy on the stack, zero-terminated.
      char text[512];
      const std::size_t n = std::min(line.size(), sizeof text - 1);
      std::memcpy(text, line.data(), n);
      text[n] = '\0';
      sink(text, user);
    });
  } catch (...) {
    // Out of memory: the sink stays as it was.
  }
}
