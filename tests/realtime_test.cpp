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
#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>

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
bool failThisAllocation() {
  if (failCountdown.load(std::memory_order_relaxed) <= 0) return false;
  return failCountdown.fetch_sub(1, std::memory_order_acq_rel) == 1;
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

}  // namespace
