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
std::atomic<std::uint64_t> allocations{0}, frees{0}, bytes{0};
}

extern "C" {
void* malloc(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  bytes.fetch_add(size, std::memory_order_relaxed);
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  bytes.fetch_add(count * size, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  bytes.fetch_add(size, std::memory_order_relaxed);
  return __libc_realloc(block, size);
}
void free(void* block) {
  if (block != nullptr) frees.fetch_add(1, std::memory_order_relaxed);
  __libc_free(block);
}
}

namespace bench {
AllocationCount allocationsSoFar() {
  return {allocations.load(), frees.load(), bytes.load()};
}
}  // namespace bench
