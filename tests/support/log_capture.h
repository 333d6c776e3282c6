// Captures the library's log lines for exact comparison.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace nimbara::test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Every line so far, after the log has been flushed.
  std::vector<std::string> lines();
  // Lines so far, then forgets them.
  std::vector<std::string> take();

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace nimbara::test
