#include <nimbara/device/route.h>

#include <nimbara/platform/audio_queue.h>

#include "common/log.h"

bool isHeadsetPluggedIn(void) {
  char route[512];
  if (nimbaraAudioSessionCopyRouteName(route, sizeof route) != 0) return false;
  return nimbara::routeNamesHeadset(route);
}

bool checkDeviceForInternal(void) {
  NIMBARA_LOG("checkDevice() -> Judge HeadsetPlugged.");
  return isHeadsetPluggedIn();
}

bool checkDeviceByMicWaveForInternal(void) {
  return false;
}
