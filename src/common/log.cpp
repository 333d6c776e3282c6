// One ordered pipe for every log line. Writers format into a fixed slot of a
// bounded lock-free queue; one log thread hands the lines to the sink in order.
// Ordinary threads then wait until their line is delivered, so a line is out
// when the call that wrote it returns; audio threads never wait (a full queue
// drops their line and counts it).
#include "common/log.h"

#include "common/bounded_queue.h"

#include <nimbara/log.h>

#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

namespace nimbara {
namespace {

thread_local bool tlsAudioThread = false;
thread_local bool tlsLogThread = false;

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
    std::thread([this] { run(); }).detach();
    std::atexit([] { instance().flush(); });
  }

  static LogPipe& instance() {
    // Never destroyed: audio threads may still log while the process exits.
    static LogPipe* pipe = new LogPipe;
    return *pipe;
  }

  void write(const char* text, std::size_t len) {
    if (tlsLogThread) {  // a sink that logs: deliver in place, in order
      deliver(std::string_view(text, len));
      return;
    }
    Line line;
    line.len = static_cast<std::uint32_t>(len < kLineMax ? len : kLineMax);
    std::memcpy(line.text, text, line.len);
    std::uint64_t pos;
    while (!lines_.tryPush(line, &pos)) {
      if (tlsAudioThread) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return;
      }
      std::this_thread::yield();
    }
    wake_.fetch_add(1, std::memory_order_release);
    wake_.notify_one();
    if (!tlsAudioThread) waitDelivered(pos + 1);
  }

  void flush() {
    if (!tlsLogThread) waitDelivered(lines_.pushed());
  }

  void setSink(LogSink sink) {
    flush();
    std::lock_guard lock(sinkMutex_);
    sink_ = std::move(sink);
  }

  unsigned long long dropped() const { return dropped_.load(std::memory_order_relaxed); }

 private:
  struct Line {
    std::uint32_t len = 0;
    char text[kLineMax];
  };

  void waitDelivered(std::uint64_t count) {
    std::uint64_t seen = delivered_.load(std::memory_order_acquire);
    while (seen < count) {
      delivered_.wait(seen, std::memory_order_acquire);
      seen = delivered_.load(std::memory_order_acquire);
    }
  }

  void deliver(std::string_view line) {
    if (!sink_) return;
    try {
      sink_(line);
    } catch (...) {
      // A failing sink loses its line; the library goes on.
    }
  }

  void run() {
    tlsLogThread = true;
    std::uint64_t count = 0;
    Line line;
    for (;;) {
      const std::uint32_t wake = wake_.load(std::memory_order_acquire);
      bool any = false;
      while (lines_.tryPop(&line)) {
        {
          std::lock_guard lock(sinkMutex_);
          deliver(std::string_view(line.text, line.len));
        }
        delivered_.store(++count, std::memory_order_release);
        delivered_.notify_all();
        any = true;
      }
      if (!any) wake_.wait(wake, std::memory_order_acquire);
    }
  }

  detail::BoundedQueue<Line, 1024> lines_;
  std::atomic<std::uint64_t> delivered_{0};
  std::atomic<std::uint32_t> wake_{0};
  std::atomic<unsigned long long> dropped_{0};
  std::mutex sinkMutex_;
  LogSink sink_;
};

}  // namespace

void setLogSink(LogSink sink) {
  LogPipe::instance().setSink(std::move(sink));
}
void flushLog() {
  LogPipe::instance().flush();
}
unsigned long long droppedLogLines() {
  return LogPipe::instance().dropped();
}

namespace detail {

void log(const char* format, ...) {
  char line[LogPipe::kLineMax];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (n < 0) return;
  const std::size_t len = static_cast<std::size_t>(n) < sizeof line ? n : sizeof line - 1;
  LogPipe::instance().write(line, len);
}

void markAudioThread() {
  tlsAudioThread = true;
}
bool isAudioThread() {
  return tlsAudioThread;
}

}  // namespace detail
}  // namespace nimbara
