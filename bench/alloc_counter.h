// Counts the heap allocations and frees of the whole benchmark process: the
// executable interposes malloc and friends over the C library's.
#pragma once

#include <cstdint>

namespace bench {

struct AllocationCount {
  std::uint64_t allocations = 0;
  std::uint64_t frees = 0;
  std::uint64_t bytes = 0;
};

// Counting is off until switched on.
void countAllocations(bool on);
AllocationCount allocationsSoFar();

}  // namespace bench
