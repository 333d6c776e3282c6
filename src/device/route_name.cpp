// The presence rule on a route name, apart from the route query so that a
// front end without an audio output (the web page) has it too.
#include <nimbara/device/route.h>

bool nimbara::routeNamesHeadset(std::string_view route) {
  return route.find("HeadsetInOut") != std::string_view::npos ||
         route.find("Headphone") != std::string_view::npos;
}
