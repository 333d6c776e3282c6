// status, flash, puff, tank and echo: the object interface on a chosen output.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>

#include "commands.h"
#include "report.h"

namespace tool {
namespace {

// The chosen audio output, installed as the library's backend.
struct Output {
  std::shared_ptr<nimbara::platform::VirtualDevice> virtualDevice;
  std::shared_ptr<nimbara::platform::PulseDevice> pulse;
  std::shared_ptr<nimbara::platform::WavDevice> wav;
};

Output openOutput(const Globals& globals) {
  if (!globals.verbose) nimbara::setLogSink({});
  Output output;
  if (globals.device == "virtual") {
    nimbara::platform::VirtualDevice::Options options;
    if (!globals.route.empty()) options.route = globals.route;
    output.virtualDevice = std::make_shared<nimbara::platform::VirtualDevice>(options);
    nimbara::platform::setBackend(output.virtualDevice);
  } else if (globals.device.rfind("wav:", 0) == 0) {
    output.wav = std::make_shared<nimbara::platform::WavDevice>(globals.device.substr(4));
    if (!globals.route.empty()) output.wav->setRoute(globals.route);
    nimbara::platform::setBackend(output.wav);
  } else {
#ifdef NIMBARA_TOOL_PULSE
    output.pulse = std::make_shared<nimbara::platform::PulseDevice>();
    std::string route;
    if (output.pulse->routeName(&route) == NIMBARA_AUDIO_ERR_NO_SERVER) {
      throw std::runtime_error(
          "no audio server could be reached; use --device virtual to play without one");
    }
    nimbara::platform::setBackend(output.pulse);
#else
    throw std::runtime_error("this build has no sound-server output; use --device virtual");
#endif
  }
  return output;
}

std::string routeOf() {
  char route[512];
  return nimbaraAudioSessionCopyRouteName(route, sizeof route) == 0 ? route : "";
}

nimbara::NimbaraSDK& sdkFor(const Globals& globals) {
  nimbara::setRunLoopPause({});
  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();
  if (globals.skipPrecheck) {
    const nimbara::Options skip{{"SKIP_PRECHECK", "YES"}};
    sdk.nimbaraProtocol()->initialize(&skip);
  }
  return sdk;
}

// Runs a request; a missing device is exit status 3, with the route named.
int request(const Globals& globals, const Output& output, const std::function<std::string()>& run) {
  std::string result;
  try {
    result = run();
  } catch (const nimbara::NimbaraException& e) {
    std::cerr << "nimbara: No device. The audio route \"" << routeOf()
              << "\" has no headphones plugged in (use --skip-precheck to send anyway)\n";
    return kNoDevice;
  }
  nimbara::platform::waitUntilIdle();
  nimbara::flushLog();
  std::string actions;
  if (output.virtualDevice) {
    // The virtual accessory hears what was played and acts on it.
    const auto heard = output.virtualDevice->playedSamples();
    nimbara::Receiver receiver(44100, 2);
    receiver.push(heard.data(), heard.size() / 2);
    receiver.finish();
    for (const auto& t : receiver.take()) {
      if (globals.json) {
        actions += (actions.empty() ? "" : ", ") + jsonString(accessoryAction(t, false));
      } else {
        actions += "accessory: " + accessoryAction(t, terminalShowsTrueColour()) + "\n";
      }
    }
  }
  if (globals.json) {
    std::cout << "{" << result;
    if (output.virtualDevice) std::cout << ", \"accessory\": [" << actions << "]";
    std::cout << "}\n";
  } else {
    std::cout << result << actions;
  }
  return 0;
}

std::string ledResult(const Globals& globals, const LedRequest& led, bool puff) {
  char text[256];
  std::snprintf(text, sizeof text,
                globals.json ? "\"command\": \"%s\", \"red\": %d, \"green\": %d, \"blue\": %d, "
                               "\"special\": %d, \"time\": %d"
                             : "%s: rgb(%d, %d, %d) special %d time %d ms\n",
                puff ? "puff" : "flash", led.red, led.green, led.blue, led.special, led.time);
  return text;
}

}  // namespace

int runStatus(const Globals& globals) {
  const Output output = openOutput(globals);
  const std::string route = routeOf();
  const bool present = isHeadsetPluggedIn();
  nimbara::platform::PulseDevice::OutputLevel level{100.0, false};
#ifdef NIMBARA_TOOL_PULSE
  if (output.pulse && output.pulse->outputLevel(&level) != 0) level = {0.0, false};
#endif
  if (globals.json) {
    std::printf("{\"route\": %s, \"present\": %s, \"volume\": %.0f, \"muted\": %s}\n",
                jsonString(route).c_str(), present ? "true" : "false", level.volumePercent,
                level.muted ? "true" : "false");
  } else {
    std::printf("route: %s\ndevice: %s\nvolume: %.0f%%%s\n", route.c_str(),
                present ? "present" : "absent (no headphones on the route)", level.volumePercent,
                level.muted ? ", muted" : "");
  }
  if (level.muted || level.volumePercent < 100.0) {
    std::cerr << "nimbara: warning: the output is " << (level.muted ? "muted" : "below full volume")
              << "; the accessory needs the full signal\n";
  }
  return 0;
}

int runLed(const Globals& globals, const LedRequest& led, bool puff) {
  const Output output = openOutput(globals);
  nimbara::NimbaraSDK& sdk = sdkFor(globals);
  return request(globals, output, [&] {
    const auto r = static_cast<std::uint8_t>(led.red), g = static_cast<std::uint8_t>(led.green),
               b = static_cast<std::uint8_t>(led.blue), s = static_cast<std::uint8_t>(led.special);
    if (puff) {
      sdk.puffAndFlashLedWithRed(r, g, b, s, static_cast<std::int16_t>(led.time));
    } else {
      sdk.flashLedWithRed(r, g, b, s, static_cast<std::int16_t>(led.time));
    }
    return ledResult(globals, led, puff);
  });
}

int runTank(const Globals& globals) {
  const Output output = openOutput(globals);
  nimbara::NimbaraSDK& sdk = sdkFor(globals);
  return request(globals, output, [&] {
    const auto tank = sdk.getTankId();
    return globals.json
               ? "\"tank\": " + jsonString(tank->description()) +
                     ", \"base64\": " + jsonString(tank->encodeBase64())
               : "tank: " + tank->description() + "\nbase64: " + tank->encodeBase64() + "\n";
  });
}

int runEcho(const Globals& globals, std::uint32_t number) {
  const Output output = openOutput(globals);
  nimbara::NimbaraSDK& sdk = sdkFor(globals);
  return request(globals, output, [&] {
    const std::uint32_t answer = sdk.echo(number);
    return globals.json ? "\"echo\": " + std::to_string(answer)
                        : "echo: " + std::to_string(answer) + "\n";
  });
}

}  // namespace tool
