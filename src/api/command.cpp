#include <nimbara/api/command.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "device/spray_time.h"

namespace nimbara {
namespace {

enum class Argument { Byte, Time, Number };

struct Signature {
  const char* name;
  const char* verb;
  bool asksTank;
  // Required arguments first; a verb's optional ones (special, time) follow.
  std::vector<std::pair<const char*, Argument>> arguments;
  std::size_t required;
};

const std::vector<std::pair<const char*, Argument>> kLed = {{"red", Argument::Byte},
                                                            {"green", Argument::Byte},
                                                            {"blue", Argument::Byte},
                                                            {"special", Argument::Byte},
                                                            {"time", Argument::Time}};

const std::vector<Signature>& signatures() {
  static const std::vector<Signature> table = {
      {"flash", "flash", false, kLed, 3},
      {"puff", "puff", true, kLed, 3},
      {"spray", "spray", false, {{"time", Argument::Time}}, 1},
      {"state", "state", false, {}, 0},
      {"tank", "tank", false, {}, 0},
      {"echo", "echo", false, {{"number", Argument::Number}}, 1},
      {"doLightLed", "flash", false, kLed, 5},
      {"doSprayWithLightLedGetTankId", "puff", true, kLed, 5},
      {"doSprayWithLightLed", "puff", false, kLed, 5},
      {"doAquireDeviceState", "state", false, {}, 0},
      {"doGetTankId", "tank", false, {}, 0},
      {"doEcho", "echo", false, {{"number", Argument::Number}}, 1},
  };
  return table;
}

const Signature* find(const std::string& name) {
  for (const auto& s : signatures()) {
    if (name == s.name) return &s;
  }
  return nullptr;
}

long long checked(const char* name, Argument kind, long long value) {
  long long low = 0, high = 255;
  if (kind == Argument::Time) low = -32768, high = 32767;
  if (kind == Argument::Number) high = 4294967295LL;
  if (value < low || value > high) {
    throw std::invalid_argument(std::string(name) + " must be from " + std::to_string(low) +
                                " to " + std::to_string(high) + ", not " + std::to_string(value));
  }
  return value;
}

}  // namespace

const std::vector<std::string>& commandVerbs() {
  static const std::vector<std::string> verbs = {"flash", "puff", "spray", "state", "tank", "echo"};
  return verbs;
}

bool isCommandName(const std::string& name) {
  return find(name) != nullptr;
}

Command makeCommand(const std::string& name, const std::vector<long long>& arguments) {
  const Signature* s = find(name);
  if (s == nullptr) throw std::invalid_argument("unknown command \"" + name + "\"");
  if (arguments.size() < s->required || arguments.size() > s->arguments.size()) {
    const std::string count =
        s->required == s->arguments.size()
            ? std::to_string(s->required)
            : std::to_string(s->required) + " to " + std::to_string(s->arguments.size());
    throw std::invalid_argument(name + " takes " + count + " arguments, not " +
                                std::to_string(arguments.size()));
  }
  Command command;
  command.verb = s->verb;
  command.asksTank = s->asksTank;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto& [argument, kind] = s->arguments[i];
    const long long value = checked(argument, kind, arguments[i]);
    const std::string field = argument;
    if (field == "red") command.red = static_cast<std::uint8_t>(value);
    if (field == "green") command.green = static_cast<std::uint8_t>(value);
    if (field == "blue") command.blue = static_cast<std::uint8_t>(value);
    if (field == "special") command.special = static_cast<std::uint8_t>(value);
    if (field == "time") command.time = static_cast<std::int16_t>(value);
    if (field == "number") command.number = static_cast<std::uint32_t>(value);
  }
  return command;
}

std::string operationName(const Command& command) {
  const std::string& v = command.verb;
  if (v == "flash") return "doLightLed";
  if (v == "puff") return command.asksTank ? "doSprayWithLightLedGetTankId" : "doSprayWithLightLed";
  if (v == "spray") return "createSprayProtocol";
  if (v == "state") return "doAquireDeviceState";
  if (v == "tank") return "doGetTankId";
  if (v == "echo") return "doEcho";
  throw std::invalid_argument("unknown command \"" + v + "\"");
}

std::int16_t sentTime(const Command& command) {
  return command.verb == "puff" ? detail::clampSprayTime(command.time) : command.time;
}

int sprayMilliseconds(const Command& command) {
  if (command.verb == "puff" || command.verb == "spray") return sentTime(command);
  return 0;
}

std::uint32_t commandFrames(const Command& command) {
  // 200 ms for the two queries, 400 ms for everything else.
  const bool query = command.verb == "state" || command.verb == "tank";
  return query ? 8820u : 17640u;
}

const char* verbOfOpcode(unsigned opcode, unsigned parameterBits, bool* asksTank) {
  if (asksTank != nullptr) *asksTank = opcode == 5 && parameterBits == 48;
  switch (opcode) {
    case 1:
      return parameterBits == 8 ? "state" : "unknown";
    case 3:
      return parameterBits == 8 ? "tank" : "unknown";
    case 4:
      return parameterBits == 48 ? "flash" : "unknown";
    case 5:
      return parameterBits == 48 ? "puff" : "unknown";
    case 2:
      return parameterBits == 48 ? "puff" : parameterBits == 16 ? "spray" : "unknown";
    case 255:
      return parameterBits == 32 ? "echo" : "unknown";
    default:
      return "unknown";
  }
}

}  // namespace nimbara
