// status, flash, puff, spray, state, tank and echo on a chosen output. Each
// command runs the controller's presence check, then the device operation
// itself, whose status says whether the sound really went out.
#include <nimbara/nimbara.h>

#include <cstdio>
#include <iostream>
#include <memory>

#include "commands.h"
#include "report.h"
#include "resampling.h"

namespace tool {
namespace {

// The chosen audio output, installed as the library's backend.
struct Output {
  std::shared_ptr<nimbara::platform::Backend> backend;
  std::shared_ptr<nimbara::platform::VirtualDevice> virtualDevice;
  std::shared_ptr<nimbara::platform::PulseDevice> pulse;
  std::shared_ptr<nimbara::platform::WavDevice> wav;
};

Output openOutput(const Globals& globals) {
  if (!globals.verbose) nimbara::setLogSink({});
  Output output;
  try {
    output.backend = nimbara::platform::makeBackend(globals.device, globals.route);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
  output.virtualDevice =
      std::dynamic_pointer_cast<nimbara::platform::VirtualDevice>(output.backend);
  output.pulse = std::dynamic_pointer_cast<nimbara::platform::PulseDevice>(output.backend);
  output.wav = std::dynamic_pointer_cast<nimbara::platform::WavDevice>(output.backend);
  if (output.pulse) {
    std::string route;
    if (output.pulse->routeName(&route) == NIMBARA_AUDIO_ERR_NO_SERVER) {
      throw std::runtime_error(
          "no audio server could be reached; use --device virtual to play without one");
    }
  }
  nimbara::platform::setBackend(output.backend);
  return output;
}

std::string routeOf() {
  char route[512];
  return nimbaraAudioSessionCopyRouteName(route, sizeof route) == 0 ? route : "";
}

std::shared_ptr<nimbara::NimbaraProtocol> controllerFor(const Globals& globals) {
  nimbara::setRunLoopPause({});
  auto protocol = nimbara::NimbaraSDK::nimbara().nimbaraProtocol();
  if (globals.skipPrecheck) protocol->setPreCheck(true);
  return protocol;
}

// A sound server output that is muted, turned down or resampling loses the
// accessory.
void warnAboutLevel(const Output& output) {
  if (!output.pulse) return;
  nimbara::platform::PulseDevice::OutputLevel level;
  if (output.pulse->outputLevel(&level) != 0) return;
  if (level.muted || level.volumePercent < 100.0) {
    std::fprintf(stderr, "nimbara: warning: the output is %s; the accessory needs full volume\n",
                 level.muted ? "muted" : "below full volume");
  }
  nimbara::platform::PulseDevice::PlaybackRate rate;
  if (output.pulse->playbackRate(&rate) == 0) std::cerr << resamplingWarning(rate);
}

// What the in-process accessory made of what the virtual device played.
std::string accessoryReport(const Globals& globals, const Output& output) {
  if (!output.virtualDevice) return "";
  const auto heard = output.virtualDevice->playedSamples();
  nimbara::Receiver receiver(44100, 2);
  receiver.push(heard.data(), heard.size() / 2);
  receiver.finish();
  std::string actions;
  for (const auto& t : receiver.take()) {
    if (globals.json) {
      actions += (actions.empty() ? "" : ", ") + jsonString(accessoryAction(t, false));
    } else {
      actions += "accessory: " + accessoryAction(t, terminalShowsTrueColour()) + "\n";
    }
  }
  return globals.json ? ", \"accessory\": [" + actions + "]" : actions;
}

// Checks presence, sends, and waits until the output has taken everything.
// Exit 3 for no device; a failing output is an error naming its cause.
int send(const Globals& globals, const Output& output, const nimbara::Command& command,
         std::string (*describe)(const Globals&, const nimbara::Command&)) {
  auto protocol = controllerFor(globals);
  try {
    protocol->preCheckDevice();
  } catch (const nimbara::NimbaraException&) {
    std::cerr << "nimbara: No device. The audio route \"" << routeOf()
              << "\" has no headphones plugged in (use --skip-precheck to send anyway)\n";
    return kNoDevice;
  }
  if (command.verb == "flash" || command.verb == "puff") warnAboutLevel(output);
  const std::int32_t status = nimbara::sendCommand(command);
  nimbara::platform::waitUntilIdle();
  nimbara::flushLog();
  if (status != 0) {
    const std::string where = output.wav ? "cannot write " + globals.device.substr(4) + ": " : "";
    throw std::runtime_error(where + nimbaraAudioStatusText(status) + " (status " +
                             std::to_string(status) + "); the command did not go out whole");
  }
  const std::string result = describe(globals, command);
  if (globals.json) {
    std::cout << "{" << result << accessoryReport(globals, output) << "}\n";
  } else {
    std::cout << result << accessoryReport(globals, output);
  }
  return 0;
}

std::string describeLed(const Globals& globals, const nimbara::Command& c) {
  char text[320];
  const int sprays = nimbara::sprayMilliseconds(c);
  if (globals.json) {
    std::snprintf(text, sizeof text,
                  "\"command\": \"%s\", \"red\": %d, \"green\": %d, \"blue\": %d, "
                  "\"special\": %d, \"time\": %d%s",
                  c.verb.c_str(), c.red, c.green, c.blue, c.special, c.time,
                  c.verb == "puff" ? (", \"sprays\": " + std::to_string(sprays)).c_str() : "");
  } else if (c.verb == "puff" && sprays != c.time) {
    std::snprintf(text, sizeof text,
                  "puff: rgb(%d, %d, %d) special %d time %d ms (the accessory sprays %d ms: "
                  "a puff lasts 100 to 1000 ms)\n",
                  c.red, c.green, c.blue, c.special, c.time, sprays);
  } else {
    std::snprintf(text, sizeof text, "%s: rgb(%d, %d, %d) special %d time %d ms\n", c.verb.c_str(),
                  c.red, c.green, c.blue, c.special, c.time);
  }
  return text;
}

std::string describeTank(const Globals& globals, const nimbara::Command&) {
  // The accessory's answer is never heard: the library answers for it.
  const auto tank = controllerFor(globals)->getTankId();
  return globals.json
             ? "\"command\": \"tank\", \"tank\": " + jsonString(tank->description()) +
                   ", \"base64\": " + jsonString(tank->encodeBase64()) + ", \"heard\": false"
             : "tank: the query was sent; no reply is heard, so this is the library's "
               "fixed identity\ntank: " +
                   tank->description() + "\nbase64: " + tank->encodeBase64() + "\n";
}

std::string describeEcho(const Globals& globals, const nimbara::Command& c) {
  const std::uint32_t answer = controllerFor(globals)->echo(c.number);
  return globals.json ? "\"command\": \"echo\", \"number\": " + std::to_string(c.number) +
                            ", \"echo\": " + std::to_string(answer) + ", \"heard\": false"
                      : "echo: " + std::to_string(c.number) +
                            " was sent; no reply is heard, so this is the library's fixed "
                            "answer\necho: " +
                            std::to_string(answer) + "\n";
}

}  // namespace

int runStatus(const Globals& globals) {
  const Output output = openOutput(globals);
  nimbara::NimbaraSDK::nimbara();  // asks for the preferred rate, as every request does
  const std::string route = routeOf();
  const bool present = isHeadsetPluggedIn();
  nimbara::platform::PulseDevice::OutputLevel level{100.0, false};
  if (output.pulse && output.pulse->outputLevel(&level) != 0) level = {0.0, false};
  // Other outputs take the signal as it is.
  nimbara::platform::PulseDevice::PlaybackRate rate{44100, true, false};
  const bool rateKnown = !output.pulse || output.pulse->playbackRate(&rate) == 0;
  if (globals.json) {
    std::printf(
        "{\"route\": %s, \"present\": %s, \"volume\": %.0f, \"muted\": %s, \"rate\": %s, "
        "\"exact\": %s}\n",
        jsonString(route).c_str(), present ? "true" : "false", level.volumePercent,
        level.muted ? "true" : "false", rateKnown ? std::to_string(rate.sinkRate).c_str() : "null",
        rateKnown && rate.exact ? "true" : "false");
  } else {
    std::printf("route: %s\ndevice: %s\nvolume: %.0f%%%s\nrate: %s\n", route.c_str(),
                present ? "present" : "absent (no headphones on the route)", level.volumePercent,
                level.muted ? ", muted" : "",
                rateKnown ? describeRate(rate).c_str() : "unknown (the sink did not play)");
  }
  if (level.muted || level.volumePercent < 100.0) {
    std::cerr << "nimbara: warning: the output is " << (level.muted ? "muted" : "below full volume")
              << "; the accessory needs full volume\n";
  }
  if (rateKnown) std::cerr << resamplingWarning(rate);
  return present ? 0 : kNoDevice;
}

int runLed(const Globals& globals, const LedRequest& led, bool puff) {
  const Output output = openOutput(globals);
  nimbara::Command command = nimbara::makeCommand(
      puff ? "puff" : "flash", {led.red, led.green, led.blue, led.special, led.time});
  return send(globals, output, command, describeLed);
}

int runTank(const Globals& globals) {
  const Output output = openOutput(globals);
  return send(globals, output, nimbara::makeCommand("tank", {}), describeTank);
}

int runEcho(const Globals& globals, std::uint32_t number) {
  const Output output = openOutput(globals);
  return send(globals, output, nimbara::makeCommand("echo", {number}), describeEcho);
}

}  // namespace tool
