#include "report.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tool {

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

namespace {

bool hasLed(const nimbara::Transmission& t) {
  return t.command == "flash" || t.command == "puff";
}

std::string arguments(const nimbara::Transmission& t) {
  char text[128] = "";
  if (hasLed(t)) {
    std::snprintf(text, sizeof text, "rgb(%d, %d, %d) special %d time %d ms", t.red, t.green,
                  t.blue, t.special, t.time);
  } else if (t.command == "spray") {
    std::snprintf(text, sizeof text, "time %d ms", t.time);
  } else if (t.command == "echo") {
    std::snprintf(text, sizeof text, "number %u", t.number);
  }
  return text;
}

}  // namespace

std::string describeTransmission(const nimbara::Transmission& t, bool json) {
  char text[512];
  if (json) {
    std::snprintf(text, sizeof text,
                  "{\"start\": %.4f, \"command\": %s, \"opcode\": %d, \"damaged\": %s, "
                  "\"parity\": [%s, %s], \"repetitionsAgree\": %s, \"red\": %d, \"green\": %d, "
                  "\"blue\": %d, \"special\": %d, \"time\": %d, \"number\": %u}",
                  t.startSeconds, jsonString(t.damaged ? "damaged" : t.command).c_str(), t.opcode,
                  t.damaged ? "true" : "false", t.parityOk[0] ? "true" : "false",
                  t.parityOk[1] ? "true" : "false", t.repetitionsAgree ? "true" : "false", t.red,
                  t.green, t.blue, t.special, t.time, t.number);
  } else if (t.damaged) {
    std::snprintf(text, sizeof text, "%8.3f s  damaged (parity %s/%s, repetitions %s, %s)",
                  t.startSeconds, t.parityOk[0] ? "ok" : "bad", t.parityOk[1] ? "ok" : "bad",
                  t.repetitionsAgree ? "agree" : "disagree", t.command.c_str());
  } else {
    std::snprintf(text, sizeof text, "%8.3f s  %s %s", t.startSeconds, t.command.c_str(),
                  arguments(t).c_str());
  }
  return text;
}

std::string accessoryAction(const nimbara::Transmission& t, bool colour) {
  if (t.damaged) return "ignores a damaged transmission";
  char text[256];
  std::string block;
  if (hasLed(t) && colour) {
    char escape[48];
    std::snprintf(escape, sizeof escape, "\x1b[48;2;%d;%d;%dm      \x1b[0m ", t.red, t.green,
                  t.blue);
    block = escape;
  }
  if (t.command == "flash") {
    std::snprintf(text, sizeof text, "LED %srgb(%d, %d, %d) special %d for %d ms", block.c_str(),
                  t.red, t.green, t.blue, t.special, t.time);
  } else if (t.command == "puff") {
    std::snprintf(text, sizeof text, "sprays for %d ms, LED %srgb(%d, %d, %d) special %d%s", t.time,
                  block.c_str(), t.red, t.green, t.blue, t.special,
                  t.asksTank ? ", and is asked for its tank identity" : "");
  } else if (t.command == "spray") {
    std::snprintf(text, sizeof text, "sprays for %d ms", t.time);
  } else if (t.command == "echo") {
    std::snprintf(text, sizeof text, "is asked to echo %u", t.number);
  } else if (t.command == "tank") {
    std::snprintf(text, sizeof text, "is asked for its tank identity");
  } else {
    std::snprintf(text, sizeof text, "is asked for its state");
  }
  return text;
}

bool terminalShowsTrueColour() {
  const char* colourTerm = std::getenv("COLORTERM");
  return isatty(STDOUT_FILENO) && colourTerm != nullptr &&
         (std::strcmp(colourTerm, "truecolor") == 0 || std::strcmp(colourTerm, "24bit") == 0);
}

}  // namespace tool
