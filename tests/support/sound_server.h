// Helpers of the tests that play on real outputs: a backend whose stream comes
// late once, raw samples read back from a file, and a recording of a
// sink's monitor on the private server.
#pragma once

#include <nimbara/platform/backend.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace test_support {

// Wraps an output; its stream holds the queue's thread back by `delay` before
// the `lateBuffer`-th buffer: the output takes the buffers before it and then
// finds nothing.
class LateStreamBackend : public nimbara::platform::Backend {
 public:
  LateStreamBackend(std::shared_ptr<Backend> inner, int lateBuffer, std::chrono::milliseconds delay)
      : inner_(std::move(inner)), lateBuffer_(lateBuffer), delay_(delay) {}
  const char* name() const override { return "late"; }
  std::int32_t routeName(std::string* name) override { return inner_->routeName(name); }
  std::int32_t openStream(const NimbaraStreamFormat& format,
                          std::unique_ptr<nimbara::platform::OutputStream>* stream) override {
    std::unique_ptr<nimbara::platform::OutputStream> inner;
    if (const std::int32_t status = inner_->openStream(format, &inner)) return status;
    *stream = std::make_unique<Stream>(std::move(inner), lateBuffer_, delay_);
    return 0;
  }

 private:
  class Stream : public nimbara::platform::OutputStream {
   public:
    Stream(std::unique_ptr<OutputStream> inner, int lateBuffer, std::chrono::milliseconds delay)
        : inner_(std::move(inner)), lateBuffer_(lateBuffer), delay_(delay) {}
    std::int32_t play(const std::int16_t* samples, std::size_t frames,
                      const std::atomic<bool>& stop) override {
      if (++plays_ == lateBuffer_) std::this_thread::sleep_for(delay_);
      return inner_->play(samples, frames, stop);
    }
    std::int32_t close() override { return inner_->close(); }

   private:
    std::unique_ptr<OutputStream> inner_;
    const int lateBuffer_;
    const std::chrono::milliseconds delay_;
    int plays_ = 0;
  };
  std::shared_ptr<Backend> inner_;
  const int lateBuffer_;
  const std::chrono::milliseconds delay_;
};

// Interleaved 16-bit little-endian samples of a raw file.
inline std::vector<std::int16_t> readSamples(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::int16_t> samples(bytes.size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::int16_t>(static_cast<std::uint8_t>(bytes[2 * i]) |
                                           (static_cast<std::uint8_t>(bytes[2 * i + 1]) << 8));
  }
  return samples;
}

// Starts parec on `source` (a sink's monitor), writing the signal's format to
// `recording`, and returns once the recording has begun; -1 if parec could
// not be started.
inline pid_t recordMonitor(const std::string& source, const std::filesystem::path& recording) {
  std::vector<std::string> args = {
      "parec",          "-d",           source,         "--raw",
      "--format=s16le", "--rate=44100", "--channels=2", "--latency-msec=20"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, recording.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t parec = -1;
  const int spawned = posix_spawnp(&parec, "parec", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return -1;
  namespace fs = std::filesystem;
  for (int i = 0; i < 500 && (!fs::exists(recording) || fs::file_size(recording) == 0); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // polling parec's start
  }
  return parec;
}

inline pid_t recordHeadphoneMonitor(const std::filesystem::path& recording) {
  return recordMonitor("headphones.monitor", recording);
}

}  // namespace test_support
