#include <nimbara/device/route.h>

#include <nimbara/platform/audio_queue.h>

#include <cstring>

#include "common/log.h"

bool isHeadsetPluggedIn(void) {
  char route[512];
  if (nimbaraAudioSessionCopyRouteName(route, sizeof route) != 0) return false;
  const bool headset = std::strstr(route, "HeadsetInOut") != nullptr;
  const bool headphone = std::strstr(route, "Headphone") != nullptr;
  return headset || headphone;
}

bool checkDeviceForInternal(void) {
  NIMBARA_LOG("checkDevice() -> Judge HeadsetPlugged.");
  return isHeadsetPluggedIn();
}

bool checkDeviceByMicWaveForInternal(void) {
  return false;
}
