// status, flash, puff, spray, state, tank and echo on a chosen output. Each
// command runs the controller's presence check, then the device operation
// itself, whose status says whether the sound really went out.
#include <nimbara/nimbara.h>

#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "resampling.h"
#include "words.h"

namespace tool {
namespace {

// What the in-process accessory made of what the output played; nothing for
// an output that plays its sound away.
std::optional<std::vector<nimbara::Transmission>> accessoryHeard(const Output& output) {
  std::vector<std::int16_t> heard;
  if (output.backend->takePlayed(&heard) != NIMBARA_AUDIO_OK) return std::nullopt;
  nimbara::Receiver receiver(NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS);
  receiver.push(heard.data(), heard.size() / 2);
  receiver.finish();
  return receiver.take();
}

// Checks presence, sends, and waits until the output has taken everything.
// Exit 3 for no device; a failing output is an error naming its cause.
int send(const Globals& globals, const Output& output, const nimbara::Command& command) {
  auto protocol = checkPresence(globals);
  const nimbara::CommandForm& form = nimbara::commandForm(command);
  if (form.lightsLed) warnAboutLevel(output);
  trace(globals, "sending " + describeCommand(command) + " (" + nimbara::operationName(command) +
                     ", " + std::to_string(nimbara::commandFrames(command)) + " frames)");
  const std::int32_t status = nimbara::sendCommand(command);
  nimbara::platform::waitUntilIdle();
  nimbara::flushLog();
  if (status != 0) failedOutput(globals, output, status);
  trace(globals, "sent");

  Json json = commandJson(command);
  std::string text = describeCommand(command) + "\n";
  if (form.answer == nimbara::CommandAnswer::Tank) {
    // The accessory's answer is never heard: the library answers for it.
    const auto tank = protocol->getTankId();
    json["tank"] = tankJson(*tank);
    json["heard"] = false;
    text += "no reply is heard: the library's fixed tank identity is " + tank->description() +
            " (" + tank->encodeBase64() + ")\n";
  } else if (form.answer == nimbara::CommandAnswer::Echo) {
    const std::uint32_t answer = protocol->echo(command.number);
    json["echo"] = answer;
    json["heard"] = false;
    text += "no reply is heard: the library's fixed answer is " + std::to_string(answer) + "\n";
  }
  if (const auto heard = accessoryHeard(output)) {
    Json actions = Json::array();
    for (const auto& t : *heard) {
      actions.push_back(accessoryAction(t, false));
      text += "accessory: " + accessoryAction(t, terminalShowsTrueColour()) + "\n";
    }
    json["accessory"] = actions;
  }
  if (globals.json) {
    std::cout << json.dump() << std::endl;
  } else {
    say(globals, text);
  }
  return 0;
}

}  // namespace

int runStatus(const Globals& globals) {
  const Output output = openOutput(globals);
  nimbara::NimbaraSDK::nimbara();  // asks for the preferred rate, as every request does
  const std::string route = routeOf();
  const bool present = isHeadsetPluggedIn();
  nimbara::platform::OutputLevel level;
  if (!readLevel(output, &level)) level = {0.0, false};
  nimbara::platform::PlaybackRate rate;
  const bool rateKnown = readRate(output, &rate);
  if (globals.json) {
    std::cout << Json{{"device", globals.device},
                      {"route", route},
                      {"present", present},
                      {"volume", std::round(level.volumePercent)},
                      {"muted", level.muted},
                      {"rate", rateKnown ? Json(rate.rate) : Json(nullptr)},
                      {"exact", rateKnown && rate.exact}}
                     .dump()
              << std::endl;
  } else {
    char volume[64];
    std::snprintf(volume, sizeof volume, "%.0f%%%s", level.volumePercent,
                  level.muted ? ", muted" : "");
    say(globals, "route: " + route +
                     "\ndevice: " + (present ? "present" : "absent (no headphones on the route)") +
                     "\nvolume: " + volume + "\nrate: " +
                     (rateKnown ? describeRate(rate) : "unknown (the sink did not play)") + "\n");
  }
  warnAboutLevel(output);
  return present ? 0 : kNoDevice;
}

int runDevice(const Globals& globals, const CommandWords& words) {
  const nimbara::Command command = parseCommand(words);
  const Output output = openOutput(globals);
  return send(globals, output, command);
}

}  // namespace tool
