// Tests with an interposed allocator and pthread_mutex_lock.
// - The audio path is real-time safe: between two buffers handed to the
//   output, the queue's thread (the output callback, its rendering, logging
//   and the hand-over) allocates nothing, frees nothing and takes no lock.
// - A failed allocation anywhere in a transmission ends it in bounded time,
//   with a status and without a crash.
// Sanitizers interpose the same functions, and are not ready when the first
// allocation comes: under any of them the interposition is left out and the
// tests skip.
#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/signal_units.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NIMBARA_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define NIMBARA_SANITIZED 1
#endif
#endif

#ifndef NIMBARA_SANITIZED
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

struct Counts {
  std::uint64_t allocations = 0, frees = 0, locks = 0;
};
thread_local Counts tlsCounts;

// When armed, the allocation that brings the countdown to 0 fails, on any thread.
std::atomic<long> failCountdown{0};
// A failed allocation sets errno, as the C library's does.
bool failThisAllocation() {
  if (failCountdown.load(std::memory_order_relaxed) <= 0) return false;
  if (failCountdown.fetch_sub(1, std::memory_order_acq_rel) != 1) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  ++tlsCounts.allocations;
  return failThisAllocation() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  ++tlsCounts.allocations;
  return failThisAllocation() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  ++tlsCounts.allocations;
  return failThisAllocation() ? nullptr : __libc_realloc(block, size);
}
void free(void* block) {
  if (block != nullptr) ++tlsCounts.frees;
  __libc_free(block);
}
int pthread_mutex_lock(pthread_mutex_t* mutex) {
  using Lock = int (*)(pthread_mutex_t*);
  static const auto real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  ++tlsCounts.locks;
  return real(mutex);
}
}
#endif

extern char** environ;

namespace {

using nimbara::platform::Backend;
using nimbara::platform::OutputStream;

// An output that takes buffers as fast as they come and checks, at every
// buffer, what its thread did since the buffer before.
class CountingDevice : public Backend {
 public:
  struct Result {
    std::atomic<std::uint64_t> buffers{0}, allocations{0}, frees{0}, locks{0};
  };

  const char* name() const override { return "counting"; }
  std::int32_t openStream(const NimbaraStreamFormat&,
                          std::unique_ptr<OutputStream>* stream) override {
    *stream = std::make_unique<Stream>(result);
    return 0;
  }
  std::int32_t routeName(std::string* route) override {
    *route = "Headphones";
    return 0;
  }
  void sleep(double) override {}

  Result result;

 private:
  class Stream : public OutputStream {
   public:
    explicit Stream(Result& result) : result_(result) {}
    std::int32_t play(const std::int16_t*, std::size_t, const std::atomic<bool>&) override {
#ifndef NIMBARA_SANITIZED
      const Counts now = tlsCounts;
      if (started_) {
        result_.allocations += now.allocations - last_.allocations;
        result_.frees += now.frees - last_.frees;
        result_.locks += now.locks - last_.locks;
      }
      started_ = true;
      last_ = now;
#endif
      ++result_.buffers;
      return 0;
    }

   private:
    Result& result_;
#ifndef NIMBARA_SANITIZED
    Counts last_;
#endif
    bool started_ = false;
  };
};

TEST(RealTime, TheAudioPathNeitherAllocatesNorFreesNorLocks) {
#ifdef NIMBARA_SANITIZED
  GTEST_SKIP() << "the allocator is the sanitizer's";
#endif
  for (bool logging : {false, true}) {
    if (logging) {
      nimbara::setLogSink([](std::string_view) {});
    } else {
      nimbara::setLogSink({});
    }
    auto device = std::make_shared<CountingDevice>();
    nimbara::platform::setBackend(device);
    ASSERT_EQ(executeFunction(createSprayWithLightLedProtocol(1, 2, 3, 4, 500), 1, 35280, nullptr),
              0);
    nimbara::platform::waitUntilIdle();
    nimbara::platform::setBackend(nullptr);
    EXPECT_GE(device->result.buffers.load(), 20u);
    EXPECT_EQ(device->result.allocations.load(), 0u) << "logging " << logging;
    EXPECT_EQ(device->result.frees.load(), 0u) << "logging " << logging;
    EXPECT_EQ(device->result.locks.load(), 0u) << "logging " << logging;
  }
  nimbara::setLogSink({});
}

// Fails the first, second, third... allocation of a whole flash in turn, on
// whichever thread it happens (the caller's, the queue's, the log's): every
// call returns, nothing crashes, and a success is only reported for a flash
// that reached the output whole.
TEST(AllocationFailure, EachFailedAllocationEndsTheTransmissionCleanly) {
#ifdef NIMBARA_SANITIZED
  GTEST_SKIP() << "the allocator is the sanitizer's";
#else
  // A sink that allocates, so that the log's own failures count too.
  nimbara::setLogSink([](std::string_view line) { std::string copy(line); });
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0.001;
  auto device = std::make_shared<nimbara::platform::VirtualDevice>(options);
  nimbara::platform::setBackend(device);
  const auto expected = nimbara::renderCommand(nimbara::makeCommand("flash", {1, 2, 3, 4, 500}));

  long failedAt = 1;
  int failures = 0, successes = 0;
  for (; failedAt < 5000; ++failedAt) {
    device->clearRecordings();
    clearProtocolUnit();  // the fixed units are built within each transmission too
    failCountdown.store(failedAt);
    std::int32_t status = -1;
    EXPECT_NO_THROW(status = doLightLed(1, 2, 3, 4, 500)) << "allocation " << failedAt;
    nimbara::platform::waitUntilIdle();
    const bool allocationFailed = failCountdown.exchange(0) <= 0;
    if (status == 0) {
      EXPECT_EQ(device->enqueuedSamples(), expected) << "allocation " << failedAt;
      ++successes;
    } else {
      EXPECT_LT(status, 0) << "allocation " << failedAt;
      ++failures;
    }
    if (!allocationFailed) break;  // past the last allocation of a flash
  }
  EXPECT_LT(failedAt, 5000);
  RecordProperty("allocations", static_cast<int>(failedAt));
  EXPECT_GT(failures, 0);
  EXPECT_GT(successes, 1);
  // And the library goes on as before.
  device->clearRecordings();
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 500), 0);
  nimbara::platform::waitUntilIdle();
  EXPECT_EQ(device->enqueuedSamples(), expected);
  nimbara::platform::setBackend(nullptr);
  nimbara::setLogSink({});
#endif
}

// A state query, a flash and a puff back to back on the virtual device, each
// allocation of the whole sequence failed in turn: the backend's making, the
// queue's open and start and thread, the fixed units, the frames, the log.
// Each run is a fresh process (what is made once per process is counted
// too); in it every call returns a status, and then the sequence plays as
// before. (Under a sanitizer the interposed allocator is left out and these go unused.)
[[maybe_unused]] std::array<std::int32_t, 3> stateFlashPuff() {
  return {doAquireDeviceState(), doLightLed(1, 2, 3, 4, 500), doSprayWithLightLed(5, 6, 7, 0, 300)};
}

// The backend a run plays on: NIMBARA_TEST_FAIL_BACKEND names one as the
// tool's --device does; the virtual device otherwise.
[[maybe_unused]] std::shared_ptr<Backend> runBackend() {
  const char* name = std::getenv("NIMBARA_TEST_FAIL_BACKEND");
  if (name != nullptr) return nimbara::platform::makeBackend(name);
  nimbara::platform::VirtualDevice::Options options;
  options.timeScale = 0.001;
  return std::make_shared<nimbara::platform::VirtualDevice>(options);
}

TEST(AllocationFailureRun, OneSequenceWithOneAllocationFailed) {
  const char* failAt = std::getenv("NIMBARA_TEST_FAIL_ALLOCATION");
  if (failAt == nullptr) GTEST_SKIP() << "run by EachFailedAllocationOfASequenceGivesAStatus";
#ifndef NIMBARA_SANITIZED
  nimbara::setLogSink([](std::string_view line) { std::string copy(line); });
  std::array<std::int32_t, 3> statuses{};
  if (std::getenv("NIMBARA_TEST_FAIL_BACKEND") != nullptr) {
    // alsa-lib 1.2.8 crashes when an allocation fails while it parses its
    // configuration for the first time: that is read before any fails.
    std::string route;
    runBackend()->routeName(&route);
  }
  // On a real-time output one state query covers its open, start and thread.
  const bool virtualDevice = std::getenv("NIMBARA_TEST_FAIL_BACKEND") == nullptr;
  failCountdown.store(std::atol(failAt));
  try {
    nimbara::platform::setBackend(runBackend());
    statuses = virtualDevice ? stateFlashPuff() : std::array{doAquireDeviceState(), 0, 0};
  } catch (const std::bad_alloc&) {
    statuses.fill(NIMBARA_AUDIO_ERR_NO_MEMORY);  // making a backend may throw it
  }
  nimbara::platform::waitUntilIdle();
  const bool failed = failCountdown.exchange(0) <= 0;
  std::printf("%s\n", failed ? "failed" : "past the last allocation");
  for (const std::int32_t status : statuses) EXPECT_LE(status, 0);
  nimbara::platform::setBackend(runBackend());
  const std::array<std::int32_t, 3> again =
      virtualDevice ? stateFlashPuff() : std::array{doAquireDeviceState(), 0, 0};
  EXPECT_EQ(again, (std::array<std::int32_t, 3>{0, 0, 0}));
  nimbara::platform::waitUntilIdle();
  nimbara::platform::setBackend(nullptr);
#endif
}

#ifndef NIMBARA_SANITIZED
// Runs the sequence once for each allocation, failing it; the number of
// allocations of the whole sequence (0 after a failure).
long failEachAllocation(const std::string& backend) {
  char scratch[] = "/tmp/nimbara-alloc.XXXXXX";
  if (mkdtemp(scratch) == nullptr) return 0;
  const std::string out = std::string(scratch) + "/out";
  long failedAt = 1;
  for (; failedAt < 5000; ++failedAt) {
    const std::string variable = "NIMBARA_TEST_FAIL_ALLOCATION=" + std::to_string(failedAt);
    std::vector<char*> env;
    for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
    env.push_back(const_cast<char*>(variable.c_str()));
    const std::string chosen = "NIMBARA_TEST_FAIL_BACKEND=" + backend;
    if (!backend.empty()) env.push_back(const_cast<char*>(chosen.c_str()));
    env.push_back(nullptr);
    char filter[] = "--gtest_filter=AllocationFailureRun.*";
    char self[] = "/proc/self/exe";
    char* argv[] = {self, filter, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, self, &actions, nullptr, argv, env.data()) != 0) return 0;
    posix_spawn_file_actions_destroy(&actions);
    // A run that hangs is killed and counts as a failure.
    int status = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > until) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // polling the child
    }
    std::ifstream in(out);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "allocation " << failedAt << ": " << text;
    if (text.find("past the last allocation") != std::string::npos) break;
    if (::testing::Test::HasFailure()) break;
  }
  std::filesystem::remove_all(scratch);
  EXPECT_LT(failedAt, 5000);
  return ::testing::Test::HasFailure() ? 0 : failedAt - 1;
}
#endif

TEST(AllocationFailure, EachFailedAllocationOfASequenceGivesAStatus) {
#ifdef NIMBARA_SANITIZED
  GTEST_SKIP() << "the allocator is the sanitizer's";
#else
  const long allocations = failEachAllocation("");
  EXPECT_GT(allocations, 0);
  RecordProperty("allocations", static_cast<int>(allocations));
  std::printf("allocations in a state query, a flash and a puff: %ld\n", allocations);
#endif
}

// The same on ALSA's null PCM, a state query: the PCM's open and start.
TEST(AllocationFailure, EachFailedAllocationOnAlsaGivesAStatus) {
#if defined(NIMBARA_SANITIZED)
  GTEST_SKIP() << "the allocator is the sanitizer's";
#elif !defined(NIMBARA_TEST_ALSA)
  GTEST_SKIP() << "built without ALSA";
#else
  const long allocations = failEachAllocation("alsa:null");
  EXPECT_GT(allocations, 0);
  RecordProperty("allocations", static_cast<int>(allocations));
  std::printf("allocations on alsa:null: %ld\n", allocations);
#endif
}

}  // namespace
