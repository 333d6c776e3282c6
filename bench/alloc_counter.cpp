#include "alloc_counter.h"

#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {
std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0}, frees{0}, bytes{0};

void count(std::size_t size) {
  if (!counting.load(std::memory_order_relaxed)) return;
  allocations.fetch_add(1, std::memory_order_relaxed);
  bytes.fetch_add(size, std::memory_order_relaxed);
}
}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  count(size);
  return __libc_malloc(size);
}
void* calloc(std::size_t n, std::size_t size) {
  count(n * size);
  return __libc_calloc(n, size);
}
void* realloc(void* block, std::size_t size) {
  count(size);
  return __libc_realloc(block, size);
}
void free(void* block) {
  if (block != nullptr && counting.load(std::memory_order_relaxed)) {
    frees.fetch_add(1, std::memory_order_relaxed);
  }
  __libc_free(block);
}
}

namespace bench {
void countAllocations(bool on) {
  counting.store(on);
}

AllocationCount allocationsSoFar() {
  return {allocations.load(), frees.load(), bytes.load()};
}
}  // namespace bench
