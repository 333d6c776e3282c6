#include "accessory_worker.h"

#include <nimbara/nimbara.h>

#include "output_choice.h"

namespace tool::serve {

AccessoryWorker::AccessoryWorker(std::shared_ptr<nimbara::platform::Backend> backend,
                                 std::size_t capacity, Finished finished)
    : backend_(std::move(backend)), capacity_(capacity), finished_(std::move(finished)) {
  thread_ = std::thread([this] { run(); });
}

AccessoryWorker::~AccessoryWorker() {
  stop();
}

AccessoryWorker::Queued AccessoryWorker::submit(Job job) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return Queued::stopping;
    if (jobs_.size() >= capacity_) return Queued::full;
    jobs_.push_back(std::move(job));
  }
  wake_.notify_one();
  return Queued::yes;
}

void AccessoryWorker::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void AccessoryWorker::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (stopping_) break;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    if (job.at) {
      const std::chrono::system_clock::time_point start{std::chrono::milliseconds(*job.at)};
      if (wake_.wait_until(lock, start, [this] { return stopping_; })) {
        jobs_.push_front(std::move(job));
        break;
      }
    }
    lock.unlock();
    Outcome outcome;
    try {
      outcome = play(job);
    } catch (const std::exception& e) {
      outcome = {1, e.what()};
    }
    report(job, outcome);
    lock.lock();
  }
  std::deque<Job> left;
  left.swap(jobs_);
  lock.unlock();
  for (const Job& job : left) {
    report(job, {1, "the service is stopping; the command did not play"});
  }
}

void AccessoryWorker::report(const Job& job, const Outcome& outcome) noexcept {
  try {
    finished_(job, outcome);
  } catch (const std::exception& e) {
    serviceLog(std::string("a result was lost: ") + e.what());
  }
}

Outcome AccessoryWorker::play(const Job& job) {
  const Presence presence = presenceOf(*backend_);
  if (!presence.present) {
    return {3,
            "No device. The audio route \"" + presence.route + "\" has no headphones plugged in"};
  }
  // This worker's output for its thread alone: the workers play at once.
  const nimbara::platform::ThreadBackendScope output(backend_);
  const std::int32_t status = nimbara::sendCommand(job.command);
  if (status != 0) {
    return {1, std::string(nimbaraAudioStatusText(status)) + " (status " + std::to_string(status) +
                   "); the command did not go out whole"};
  }
  return {0, "done"};
}

}  // namespace tool::serve
