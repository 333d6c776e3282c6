// The service's seam to the command vocabulary: words go through the tool's
// reading of its command line, a field map through the fields the tool prints.
#include "command_input.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <vector>

#include "../commands.h"
#include "../report.h"
#include "../words.h"

namespace tool::serve {
namespace {

nimbara::Command fromWords(const std::vector<std::string>& all) {
  CommandWords words;
  words.verb = all.front();
  for (std::size_t i = 1; i < all.size(); ++i) {
    const std::string& word = all[i];
    if (word == "--no-tank") {
      words.noTank = true;
    } else if (word == "--time" || word == "--special") {
      if (i + 1 == all.size()) throw UsageError(word + " needs a value");
      (word == "--time" ? words.time : words.special) = all[++i];
    } else if (word.starts_with("--") && word.size() > 2) {
      throw UsageError("unknown option " + word);
    } else {
      words.words.push_back(word);
    }
  }
  return parseCommand(words);
}

long long integerField(const Json& fields, const char* name, long long fallback) {
  const auto it = fields.find(name);
  if (it == fields.end()) return fallback;
  if (!it->is_number_integer()) throw UsageError(std::string(name) + " must be a whole number");
  return it->get<long long>();
}

nimbara::Command fromFields(Json fields) {
  const auto verb = fields.find("command");
  if (verb == fields.end() || !verb->is_string()) {
    throw UsageError("the field map has no \"command\" (flash, puff, spray, state, tank or echo)");
  }
  const std::string name = verb->get<std::string>();
  const bool led = name == "flash" || name == "puff";
  for (const auto& [key, value] : fields.items()) {
    const bool known =
        key == "command" ||
        (led && (key == "red" || key == "green" || key == "blue" || key == "special")) ||
        ((led || name == "spray") && key == "time") || (name == "echo" && key == "number") ||
        (name == "puff" && key == "asks_tank") || key == "sprays" ||
        key == "operation";  // as the tool prints them
    if (!known) throw UsageError(name + " takes no field \"" + key + "\"");
  }
  try {
    if (led) {
      for (const char* colour : {"red", "green", "blue"}) {
        if (!fields.contains(colour)) throw UsageError(name + " needs red, green and blue");
      }
      nimbara::Command command = nimbara::makeCommand(
          name, {integerField(fields, "red", 0), integerField(fields, "green", 0),
                 integerField(fields, "blue", 0), integerField(fields, "special", 0),
                 integerField(fields, "time", 500)});
      if (const auto tank = fields.find("asks_tank"); tank != fields.end()) {
        if (!tank->is_boolean()) throw UsageError("asks_tank must be true or false");
        command.asksTank = tank->get<bool>();
      }
      return command;
    }
    if (name == "spray") return nimbara::makeCommand(name, {integerField(fields, "time", 500)});
    if (name == "echo") return nimbara::makeCommand(name, {integerField(fields, "number", 0)});
    if (name == "state" || name == "tank") return nimbara::makeCommand(name, {});
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
  const std::string near = nearest(name, nimbara::commandVerbs());
  throw UsageError("unknown command \"" + name + "\"" +
                   (near.empty() ? "" : " (did you mean " + near + "?)"));
}

}  // namespace

CommandMessage commandFromMessage(const std::string& payload) {
  CommandMessage message;
  const auto first = payload.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) throw UsageError("the message is empty");
  if (payload[first] != '{' && payload[first] != '[') {
    std::istringstream stream(payload);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    message.command = fromWords(words);
    return message;
  }
  Json fields;
  try {
    fields = Json::parse(payload);
  } catch (const Json::parse_error& e) {
    throw UsageError(std::string("the message is not JSON: ") + e.what());
  }
  if (!fields.is_object()) throw UsageError("the message is not a JSON object");
  if (const auto at = fields.find("at"); at != fields.end()) {
    if (!at->is_number_integer() || at->get<long long>() < 0) {
      throw UsageError("at must be a time in Unix milliseconds");
    }
    message.at = at->get<std::int64_t>();
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    if (*message.at > now.count() + kLongestWait.count()) {
      throw UsageError("at is more than a day away");
    }
    fields.erase("at");
  }
  if (const auto id = fields.find("id"); id != fields.end()) {
    message.id = *id;
    fields.erase("id");
  }
  message.command = fromFields(fields);
  return message;
}

Json commandFields(const nimbara::Command& command) {
  return commandJson(command);
}

std::string text(const Json& json) {
  // Words quoted back from a payload need not be UTF-8.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void serviceLog(const std::string& line) {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  std::fprintf(stderr, "nimbara serve: %s\n", line.c_str());
  std::fflush(stderr);
}

}  // namespace tool::serve
