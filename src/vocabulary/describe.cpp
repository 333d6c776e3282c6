// Commands and transmissions in words for people: the tool's lines.
#include <nimbara/api/vocabulary.h>
#include <nimbara/receiver/receiver.h>

#include <cstdio>

#include "vocabulary/field_names.h"

namespace nimbara {
namespace {

std::string rgb(int red, int green, int blue) {
  return "rgb(" + std::to_string(red) + ", " + std::to_string(green) + ", " + std::to_string(blue) +
         ")";
}

// The verb's arguments: " rgb(...) special S time T ms", " time T ms",
// " number N", or nothing.
std::string arguments(unsigned fields, int red, int green, int blue, int special, int time,
                      std::uint32_t number) {
  std::string text;
  if (fields & kFieldRed) {
    text += " " + rgb(red, green, blue) + " special " + std::to_string(special);
  }
  if (fields & kFieldTime) text += " time " + std::to_string(time) + " ms";
  if (fields & kFieldNumber) text += " number " + std::to_string(number);
  return text;
}

const char* const kNoTank = " without asking for the tank";

}  // namespace

std::string describeCommand(const Command& c) {
  const CommandForm& form = commandForm(c);
  std::string text =
      form.verb + arguments(form.fields, c.red, c.green, c.blue, c.special, c.time, c.number);
  if (form.clampsTime && sprayMilliseconds(c) != c.time) {
    text += " (sent as " + std::to_string(sentTime(c)) + " ms: the accessory sprays " +
            std::to_string(sprayMilliseconds(c)) + " ms, a puff lasts 100 to 1000 ms)";
  }
  if ((form.fields & kFieldAsksTank) && !c.asksTank) text += kNoTank;
  return text;
}

std::string describeTransmissionCommand(const Transmission& t) {
  const CommandForm* form = detail::formOfVerb(t.command, t.asksTank);
  if (form == nullptr) return t.command;
  return t.command + arguments(form->fields, t.red, t.green, t.blue, t.special, t.time, t.number) +
         ((form->fields & kFieldAsksTank) && !t.asksTank ? kNoTank : "");
}

std::string accessoryAction(const Transmission& t, bool colourBlock) {
  if (t.damaged) return "ignores a damaged transmission";
  const CommandForm* form = detail::formOfVerb(t.command, t.asksTank);
  if (form == nullptr) return "ignores an unknown command";
  std::string led;
  if (form->lightsLed) {
    char block[48] = "";
    if (colourBlock) {
      std::snprintf(block, sizeof block, "\x1b[48;2;%d;%d;%dm      \x1b[0m ", t.red, t.green,
                    t.blue);
    }
    led = "LED " + std::string(block) + rgb(t.red, t.green, t.blue) + " special " +
          std::to_string(t.special);
  }
  const std::string time = std::to_string(t.time) + " ms";
  if (form->sprays && form->lightsLed) {
    return "sprays for " + time + ", " + led +
           (t.asksTank ? ", and is asked for its tank identity" : "");
  }
  if (form->lightsLed) return led + " for " + time;
  if (form->sprays) return "sprays for " + time;
  switch (form->answer) {
    case CommandAnswer::Echo:
      return "is asked to echo " + std::to_string(t.number);
    case CommandAnswer::Tank:
      return "is asked for its tank identity";
    case CommandAnswer::None:
      break;
  }
  return "is asked for its state";
}

}  // namespace nimbara
