// The presence rule on a route name, shared by the route test and by front
// ends that learn the output's name another way (the web page's output list).
#pragma once

#include <cstring>

namespace nimbara::detail {

// True when the name contains "HeadsetInOut" or "Headphone", case-sensitive,
// anywhere in the text.
inline bool routeNamesHeadset(const char* route) {
  const bool headset = std::strstr(route, "HeadsetInOut") != nullptr;
  const bool headphone = std::strstr(route, "Headphone") != nullptr;
  return headset || headphone;
}

}  // namespace nimbara::detail
