// Backend operations that may allocate: running out of memory is a status,
// never an exception that crosses the C interface.
#pragma once

#include <nimbara/platform/backend.h>

#include <cstdint>
#include <new>

namespace nimbara::platform::detail {

// Runs a step that may allocate; running out of memory is a status.
template <typename Step>
std::int32_t guarded(Step step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
}

}  // namespace nimbara::platform::detail
