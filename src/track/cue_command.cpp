// A cue's text to its command: the one place a track meets the command
// vocabulary. Text starting with "{" is the command's field map, anything
// else the tool's words.
//
// TEMPORARY: the two readers below stand in for the vocabulary's own
// nimbara::commandFromWords and nimbara::commandFromFields. When those land,
// cueCommand becomes
//   text starts with "{" ? commandFromFields(text) : commandFromWords(split(text))
// and everything in the anonymous namespace but splitWords goes.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "../../tool/css_colours.h"
#include "nimbara/track/track.h"

namespace nimbara {
namespace {

std::vector<std::string> splitWords(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// TEMPORARY (see above) from here to the end of the namespace.

long long integer(const std::string& name, const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE) {
    throw std::invalid_argument(name + " must be a decimal number, not \"" + text + "\"");
  }
  return value;
}

std::vector<long long> colour(const std::vector<std::string>& words) {
  if (words.size() == 3) {
    return {integer("red", words[0]), integer("green", words[1]), integer("blue", words[2])};
  }
  if (words.size() != 1) {
    throw std::invalid_argument("a colour is R G B or one word (#rrggbb, rrggbb or a CSS name)");
  }
  std::string word = words[0];
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const std::string hex = word[0] == '#' ? word.substr(1) : word;
  if (hex.size() == 6 && hex.find_first_not_of("0123456789abcdef") == std::string::npos) {
    const long value = std::strtol(hex.c_str(), nullptr, 16);
    return {value >> 16, (value >> 8) & 0xFF, value & 0xFF};
  }
  if (const auto* named = tool::cssColour(word)) return {named->red, named->green, named->blue};
  throw std::invalid_argument("\"" + words[0] +
                              "\" is not a colour (R G B, #rrggbb, rrggbb or a CSS name)");
}

Command fromWords(const std::vector<std::string>& all) {
  if (all.empty()) throw std::invalid_argument("a cue needs a command");
  const std::string& verb = all[0];
  std::vector<std::string> words;
  std::optional<std::string> special, time;
  bool noTank = false;
  for (std::size_t i = 1; i < all.size(); ++i) {
    const std::string& w = all[i];
    const auto value = [&]() {
      if (i + 1 >= all.size()) throw std::invalid_argument(w + " needs a value");
      return all[++i];
    };
    if (w == "--time") {
      time = value();
    } else if (w == "--special") {
      special = value();
    } else if (w == "--no-tank") {
      noTank = true;
    } else if (w.rfind("--", 0) == 0) {
      throw std::invalid_argument("unknown option " + w);
    } else {
      words.push_back(w);
    }
  }
  const bool led = verb == "flash" || verb == "puff";
  if (!led && (special || time || noTank)) {
    throw std::invalid_argument(verb + " takes no --special, --time or --no-tank");
  }
  if (noTank && verb != "puff") throw std::invalid_argument("only puff takes --no-tank");
  if (!led && !isCommandName(verb)) throw std::invalid_argument("unknown command \"" + verb + "\"");
  std::vector<long long> arguments;
  if (led) {
    arguments = colour(words);
    arguments.push_back(special ? integer("special", *special) : 0);
    arguments.push_back(time ? integer("time", *time) : 500);
  } else {
    for (const auto& w : words) arguments.push_back(integer("argument", w));
  }
  Command command = makeCommand(verb, arguments);
  if (noTank) command.asksTank = false;
  return command;
}

// A flat JSON object of numbers, strings and booleans.
std::map<std::string, std::string> jsonObject(const std::string& text) {
  std::map<std::string, std::string> fields;
  std::size_t at = 0;
  const auto bad = [] { return std::invalid_argument("the cue's field map is not a JSON object"); };
  const auto space = [&] {
    while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0) ++at;
  };
  const auto string = [&] {
    if (at >= text.size() || text[at] != '"') throw bad();
    const std::size_t end = text.find('"', at + 1);
    if (end == std::string::npos) throw bad();
    std::string value = text.substr(at + 1, end - at - 1);
    at = end + 1;
    return value;
  };
  space();
  if (at >= text.size() || text[at++] != '{') throw bad();
  space();
  if (at < text.size() && text[at] == '}') ++at;
  while (at < text.size() && text[at - 1] != '}') {
    space();
    const std::string key = string();
    space();
    if (at >= text.size() || text[at++] != ':') throw bad();
    space();
    std::string value;
    if (at < text.size() && text[at] == '"') {
      value = string();
    } else {
      const std::size_t end = text.find_first_of(",} \t\r\n", at);
      if (end == std::string::npos) throw bad();
      value = text.substr(at, end - at);
      at = end;
    }
    fields[key] = value;
    space();
    if (at >= text.size() || (text[at] != ',' && text[at] != '}')) throw bad();
    ++at;
  }
  space();
  if (at != text.size() || text.empty() || text[at - 1] != '}') throw bad();
  return fields;
}

Command fromFields(const std::string& text) {
  auto fields = jsonObject(text);
  const auto verb = fields.find("command");
  if (verb == fields.end()) throw std::invalid_argument("the cue's field map has no \"command\"");
  const auto number = [&](const char* name, long long otherwise) {
    const auto field = fields.find(name);
    return field == fields.end() ? otherwise : integer(name, field->second);
  };
  const std::string& v = verb->second;
  std::vector<long long> arguments;
  if (v == "flash" || v == "puff") {
    arguments = {number("red", 0), number("green", 0), number("blue", 0), number("special", 0),
                 number("time", 500)};
  } else if (v == "spray") {
    arguments = {number("time", 500)};
  } else if (v == "echo") {
    arguments = {number("number", 0)};
  } else if (v != "state" && v != "tank") {
    throw std::invalid_argument("unknown command \"" + v + "\"");
  }
  Command command = makeCommand(v, arguments);
  const auto asksTank = fields.find("asks_tank");
  if (v == "puff" && asksTank != fields.end()) {
    if (asksTank->second != "true" && asksTank->second != "false") {
      throw std::invalid_argument("asks_tank must be true or false");
    }
    command.asksTank = asksTank->second == "true";
  }
  return command;
}

}  // namespace

Command cueCommand(const std::string& text) {
  const std::vector<std::string> words = splitWords(text);
  if (words.empty()) throw std::invalid_argument("a cue needs a command");
  return words[0][0] == '{' ? fromFields(text) : fromWords(words);
}

}  // namespace nimbara
