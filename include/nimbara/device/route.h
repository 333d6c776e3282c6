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
#include <string_view>

namespace nimbara {

/** The presence rule on a route name: true when it contains "HeadsetInOut" or
 * "Headphone" (case matters), anywhere. For an output known by its route
 * without being the current one (a list of outputs). */
NIMBARA_API bool routeNamesHeadset(std::string_view route);

}  // namespace nimbara
#endif

#endif
