// One accessory's queue: commands play one after another in arrival order,
// each after its start time, on the worker's own thread.
#pragma once

#include <nimbara/api/command.h>
#include <nimbara/platform/backend.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "command_input.h"

namespace tool::serve {

struct Job {
  nimbara::Command command;
  std::optional<std::int64_t> at;  // Unix milliseconds
  Json id;
  bool fromLight = false;  // the Home Assistant light asked for it
};

// What became of a job: exit 0 done, 1 failure, 3 no device, as the tool's
// exit statuses.
struct Outcome {
  int exit = 0;
  std::string message;
};

class AccessoryWorker {
 public:
  // `finished` is called on the worker's thread after each job, and for the
  // jobs still waiting when the worker stops.
  using Finished = std::function<void(const Job&, const Outcome&)>;

  AccessoryWorker(std::shared_ptr<nimbara::platform::Backend> backend, std::size_t capacity,
                  Finished finished);
  ~AccessoryWorker();
  AccessoryWorker(const AccessoryWorker&) = delete;
  AccessoryWorker& operator=(const AccessoryWorker&) = delete;

  enum class Queued { yes, full, stopping };
  Queued submit(Job job);
  std::size_t capacity() const { return capacity_; }
  // Finishes the job that plays, fails those that wait, and joins.
  void stop();

 private:
  void run();
  Outcome play(const Job& job);
  void report(const Job& job, const Outcome& outcome) noexcept;

  const std::shared_ptr<nimbara::platform::Backend> backend_;
  const std::size_t capacity_;
  const Finished finished_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace tool::serve
