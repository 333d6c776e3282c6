// A bounded lock-free queue for many producers and consumers (after Dmitry
// Vyukov's design): fixed slots, no allocation after construction, and a push
// or pop never waits, which makes it usable on the audio thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace nimbara::detail {

template <typename T, std::size_t N>
class BoundedQueue {
  static_assert(N > 0 && (N & (N - 1)) == 0, "capacity must be a power of two");

 public:
  BoundedQueue() {
    for (std::size_t i = 0; i < N; ++i) slots_[i].seq.store(i, std::memory_order_relaxed);
  }

  // False when full. On success *position is the item's place in push order.
  bool tryPush(const T& item, std::uint64_t* position = nullptr) {
    std::uint64_t pos = head_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& slot = slots_[pos % N];
      const std::uint64_t seq = slot.seq.load(std::memory_order_acquire);
      const auto diff = static_cast<std::int64_t>(seq - pos);
      if (diff == 0) {
        if (head_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
          slot.item = item;
          slot.seq.store(pos + 1, std::memory_order_release);
          if (position != nullptr) *position = pos;
          return true;
        }
      } else if (diff < 0) {
        return false;
      } else {
        pos = head_.load(std::memory_order_relaxed);
      }
    }
  }

  // False when empty.
  bool tryPop(T* item) {
    std::uint64_t pos = tail_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& slot = slots_[pos % N];
      const std::uint64_t seq = slot.seq.load(std::memory_order_acquire);
      const auto diff = static_cast<std::int64_t>(seq - (pos + 1));
      if (diff == 0) {
        if (tail_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
          *item = slot.item;
          slot.seq.store(pos + N, std::memory_order_release);
          return true;
        }
      } else if (diff < 0) {
        return false;
      } else {
        pos = tail_.load(std::memory_order_relaxed);
      }
    }
  }

  std::uint64_t pushed() const { return head_.load(std::memory_order_acquire); }

 private:
  struct Slot {
    std::atomic<std::uint64_t> seq;
    T item;
  };
  std::array<Slot, N> slots_;
  alignas(64) std::atomic<std::uint64_t> head_{0};
  alignas(64) std::atomic<std::uint64_t> tail_{0};
};

}  // namespace nimbara::detail
