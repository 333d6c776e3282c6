// The spray time the accessory is sent: at most 1000 ms, at least 100 ms.
#pragma once

#include <cstdint>

namespace nimbara::detail {

inline std::int16_t clampSprayTime(std::int16_t time) {
  if (time > 1000) time = 1000;
  if (time < 100) time = 100;
  return time;
}

}  // namespace nimbara::detail
