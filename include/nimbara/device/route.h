/* Presence of the device, judged from the current audio route: something
 * named like a headset or headphones is plugged in. */
#ifndef NIMBARA_DEVICE_ROUTE_H
#define NIMBARA_DEVICE_ROUTE_H

#include <stdbool.h>

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** True when the route name contains "HeadsetInOut" or "Headphone" (case
 * matters); false when the route cannot be read. */
NIMBARA_API bool isHeadsetPluggedIn(void);

/** Logs "checkDevice() -> Judge HeadsetPlugged." and asks isHeadsetPluggedIn. */
NIMBARA_API bool checkDeviceForInternal(void);

/** The place of a presence test by the microphone, which is not performed:
 * always false. */
NIMBARA_API bool checkDeviceByMicWaveForInternal(void);

NIMBARA_END_C

#ifdef __cplusplus
#include <cstring>

namespace nimbara {

/** The presence rule on a route name, for front ends that learn an output's
 * name another way (the web page's output list): true when the name contains
 * "HeadsetInOut" or "Headphone", case-sensitive, anywhere in the text. */
inline bool routeNamesHeadset(const char* route) {
  return std::strstr(route, "HeadsetInOut") != nullptr ||
         std::strstr(route, "Headphone") != nullptr;
}

}  // namespace nimbara
#endif

#endif
