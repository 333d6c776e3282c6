#include "support/log_capture.h"

#include <nimbara/log.h>

#include <utility>

namespace nimbara::test {

LogCapture::LogCapture() {
  setLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() {
  setLogSink({});
}

std::vector<std::string> LogCapture::lines() {
  flushLog();
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::take() {
  flushLog();
  std::lock_guard lock(mutex_);
  return std::exchange(lines_, {});
}

}  // namespace nimbara::test
