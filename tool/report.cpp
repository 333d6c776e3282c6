#include "report.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace tool {
Json commandJson(const nimbara::Command& c) {
  return Json::parse(nimbara::commandFields(c));
}

Json transmissionJson(const nimbara::Transmission& t, const std::string& file) {
  const Json fields = Json::parse(nimbara::transmissionFields(t));
  if (file.empty()) return fields;
  // The file follows the command and its opcode.
  Json json;
  for (const auto& [name, value] : fields.items()) {
    json[name] = value;
    if (name == "opcode") json["file"] = file;
  }
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
  return start + nimbara::describeTransmissionCommand(t) + sureness;
}

Json tankJson(const nimbara::TankId& tank) {
  return Json{
      {"year", tank.year()},         {"month", tank.month()},        {"day", tank.day()},
      {"scent_id", tank.scentId()},  {"serial_id", tank.serialId()}, {"reserve1", tank.reserve1()},
      {"reserve2", tank.reserve2()}, {"base64", tank.encodeBase64()}};
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
