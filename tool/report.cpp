#include "report.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace tool {
namespace {

bool hasLed(const std::string& verb) {
  return verb == "flash" || verb == "puff";
}

std::string rgb(int red, int green, int blue) {
  return "rgb(" + std::to_string(red) + ", " + std::to_string(green) + ", " + std::to_string(blue) +
         ")";
}

std::string arguments(const std::string& verb, int red, int green, int blue, int special, int time,
                      std::uint32_t number) {
  if (hasLed(verb)) {
    return " " + rgb(red, green, blue) + " special " + std::to_string(special) + " time " +
           std::to_string(time) + " ms";
  }
  if (verb == "spray") return " time " + std::to_string(time) + " ms";
  if (verb == "echo") return " number " + std::to_string(number);
  return "";
}

// The fields a verb carries, the same whether sent or received.
void addArguments(Json& json, const std::string& verb, int red, int green, int blue, int special,
                  int time, std::uint32_t number, bool asksTank) {
  if (hasLed(verb)) {
    json["red"] = red;
    json["green"] = green;
    json["blue"] = blue;
    json["special"] = special;
  }
  if (hasLed(verb) || verb == "spray") json["time"] = time;
  if (verb == "echo") json["number"] = number;
  if (verb == "puff") json["asks_tank"] = asksTank;
}

}  // namespace

Json commandJson(const nimbara::Command& c) {
  Json json{{"command", c.verb}};
  addArguments(json, c.verb, c.red, c.green, c.blue, c.special, c.time, c.number, c.asksTank);
  if (c.verb == "puff" || c.verb == "spray") json["sprays"] = nimbara::sprayMilliseconds(c);
  json["operation"] = nimbara::operationName(c);
  return json;
}

std::string describeCommand(const nimbara::Command& c) {
  std::string text =
      c.verb + arguments(c.verb, c.red, c.green, c.blue, c.special, c.time, c.number);
  if (c.verb == "puff" && nimbara::sprayMilliseconds(c) != c.time) {
    text += " (sent as " + std::to_string(nimbara::sentTime(c)) + " ms: the accessory sprays " +
            std::to_string(nimbara::sprayMilliseconds(c)) + " ms, a puff lasts 100 to 1000 ms)";
  }
  if (c.verb == "puff" && !c.asksTank) text += " without asking for the tank";
  return text;
}

Json transmissionJson(const nimbara::Transmission& t, const std::string& file) {
  Json json{{"command", t.command}, {"opcode", t.opcode}};
  if (!file.empty()) json["file"] = file;
  json["start"] = std::round(t.startSeconds * 10000) / 10000;
  json["damaged"] = t.damaged;
  addArguments(json, t.command, t.red, t.green, t.blue, t.special, t.time, t.number, t.asksTank);
  json["confidence"] = t.confidence;
  json["snr_db"] = t.snrDb;
  return json;
}

std::string describeTransmission(const nimbara::Transmission& t) {
  char start[32];
  std::snprintf(start, sizeof start, "%8.3f s  ", t.startSeconds);
  if (t.damaged) {
    return std::string(start) + "damaged (parity " + (t.parityOk[0] ? "ok" : "bad") + "/" +
           (t.parityOk[1] ? "ok" : "bad") + ", repetitions " +
           (t.repetitionsAgree ? "agree" : "disagree") + ", " + t.command + ")";
  }
  char sureness[64];
  std::snprintf(sureness, sizeof sureness, "  [confidence %.2f, SNR %.0f dB]", t.confidence,
                t.snrDb);
  return start + t.command +
         arguments(t.command, t.red, t.green, t.blue, t.special, t.time, t.number) +
         (t.command == "puff" && !t.asksTank ? " without asking for the tank" : "") + sureness;
}

Json tankJson(const nimbara::TankId& tank) {
  return Json{
      {"year", tank.year()},         {"month", tank.month()},        {"day", tank.day()},
      {"scent_id", tank.scentId()},  {"serial_id", tank.serialId()}, {"reserve1", tank.reserve1()},
      {"reserve2", tank.reserve2()}, {"base64", tank.encodeBase64()}};
}

std::string accessoryAction(const nimbara::Transmission& t, bool colour) {
  if (t.damaged) return "ignores a damaged transmission";
  std::string block;
  if (hasLed(t.command) && colour) {
    char escape[48];
    std::snprintf(escape, sizeof escape, "\x1b[48;2;%d;%d;%dm      \x1b[0m ", t.red, t.green,
                  t.blue);
    block = escape;
  }
  const std::string led =
      "LED " + block + rgb(t.red, t.green, t.blue) + " special " + std::to_string(t.special);
  if (t.command == "flash") return led + " for " + std::to_string(t.time) + " ms";
  if (t.command == "puff") {
    return "sprays for " + std::to_string(t.time) + " ms, " + led +
           (t.asksTank ? ", and is asked for its tank identity" : "");
  }
  if (t.command == "spray") return "sprays for " + std::to_string(t.time) + " ms";
  if (t.command == "echo") return "is asked to echo " + std::to_string(t.number);
  if (t.command == "tank") return "is asked for its tank identity";
  return "is asked for its state";
}

bool terminalShowsTrueColour() {
  const char* noColour = std::getenv("NO_COLOR");
  if (noColour != nullptr && noColour[0] != '\0') return false;
  const char* colourTerm = std::getenv("COLORTERM");
  return isatty(STDOUT_FILENO) && colourTerm != nullptr &&
         (std::strcmp(colourTerm, "truecolor") == 0 || std::strcmp(colourTerm, "24bit") == 0);
}

void say(const Globals& globals, const std::string& text) {
  if (globals.verbosity >= 0) std::cout << text << std::flush;
}

void trace(const Globals& globals, const std::string& text) {
  if (globals.verbosity < 1) return;
  using Clock = std::chrono::steady_clock;
  static const Clock::time_point started = Clock::now();
  char when[32];
  std::snprintf(when, sizeof when, "%7.3f s  ",
                std::chrono::duration<double>(Clock::now() - started).count());
  std::cerr << "nimbara: " << when << text << std::endl;
}

}  // namespace tool
