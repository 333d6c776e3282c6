#include "words.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "css_colours.h"

namespace tool {
namespace {

// A word as it can be quoted back: a very long one is cut.
std::string quoted(const std::string& text) {
  return "\"" + (text.size() <= 24 ? text : text.substr(0, 20) + "...") + "\"";
}

bool isHex(const std::string& text) {
  return text.size() == 6 && std::all_of(text.begin(), text.end(),
                                         [](unsigned char c) { return std::isxdigit(c) != 0; });
}

}  // namespace

long long decimalNumber(const std::string& name, const std::string& text, long long low,
                        long long high) {
  const std::size_t start = !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
  const bool decimal = text.size() > start &&
                       std::all_of(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(),
                                   [](unsigned char c) { return std::isdigit(c) != 0; });
  if (!decimal) throw UsageError(name + " must be a decimal number, not " + quoted(text));
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || value < low || value > high) {
    throw UsageError(name + " must be from " + std::to_string(low) + " to " + std::to_string(high) +
                     ", not " + quoted(text));
  }
  return value;
}

double seconds(const std::string& name, const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value) || value < 0) {
    throw UsageError(name + " must be a number of seconds, 0 or more, not " + quoted(text));
  }
  return value;
}

Colour colour(const std::vector<std::string>& words) {
  if (words.size() == 3) {
    return {static_cast<int>(decimalNumber("red", words[0], 0, 255)),
            static_cast<int>(decimalNumber("green", words[1], 0, 255)),
            static_cast<int>(decimalNumber("blue", words[2], 0, 255))};
  }
  if (words.size() != 1) {
    throw UsageError("a colour is R G B or one word (#rrggbb, rrggbb or a CSS name), not " +
                     std::to_string(words.size()) + " words");
  }
  std::string word = words[0];
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const std::string hex = !word.empty() && word[0] == '#' ? word.substr(1) : word;
  if (isHex(hex)) {
    const long value = std::strtol(hex.c_str(), nullptr, 16);
    return {static_cast<int>(value >> 16), static_cast<int>((value >> 8) & 0xFF),
            static_cast<int>(value & 0xFF)};
  }
  if (const auto* named = cssColour(word)) return {named->red, named->green, named->blue};
  throw UsageError(quoted(words[0]) + " is not a colour (R G B, #rrggbb, rrggbb or a CSS name)");
}

nimbara::Command parseCommand(const CommandWords& c) {
  const auto count = [&](std::size_t expected, const char* what) {
    if (c.words.size() != expected) {
      throw UsageError(c.verb + " takes " + what + ", not " + std::to_string(c.words.size()) +
                       " words");
    }
  };
  const bool led = c.verb == "flash" || c.verb == "puff";
  if (!led && (c.special || c.time || c.noTank)) {
    throw UsageError(c.verb + " takes no --special, --time or --no-tank");
  }
  if (c.noTank && c.verb != "puff") throw UsageError("only puff takes --no-tank");
  try {
    if (led) {
      const Colour rgb = colour(c.words);
      nimbara::Command command = nimbara::makeCommand(
          c.verb, {rgb.red, rgb.green, rgb.blue,
                   c.special ? decimalNumber("special", *c.special, 0, 255) : 0,
                   c.time ? decimalNumber("time", *c.time, -32768, 32767) : 500});
      command.asksTank = !c.noTank;
      return command;
    }
    if (c.verb == "spray") {
      count(1, "one time in milliseconds");
      return nimbara::makeCommand("spray", {decimalNumber("time", c.words[0], -32768, 32767)});
    }
    if (c.verb == "echo") {
      count(1, "one number");
      return nimbara::makeCommand("echo", {decimalNumber("number", c.words[0], 0, 4294967295LL)});
    }
    if (c.verb == "state" || c.verb == "tank") {
      count(0, "nothing");
      return nimbara::makeCommand(c.verb, {});
    }
    if (!nimbara::isCommandName(c.verb)) {
      const std::string near = nearest(c.verb, nimbara::commandVerbs());
      throw UsageError("unknown command " + quoted(c.verb) +
                       (near.empty() ? "" : " (did you mean " + near + "?)"));
    }
    // A library operation name: its own numeric arguments, in its order.
    std::vector<long long> numbers;
    for (const auto& word : c.words) {
      numbers.push_back(decimalNumber("argument", word, -4294967296LL, 4294967295LL));
    }
    return nimbara::makeCommand(c.verb, numbers);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

std::string nearest(const std::string& word, const std::vector<std::string>& choices) {
  std::string best;
  std::size_t bestDistance = 3;  // at most two edits away
  for (const auto& choice : choices) {
    std::vector<std::size_t> row(choice.size() + 1);
    for (std::size_t j = 0; j <= choice.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= word.size(); ++i) {
      std::size_t diagonal = row[0];
      row[0] = i;
      for (std::size_t j = 1; j <= choice.size(); ++j) {
        const std::size_t above = row[j];
        row[j] = std::min(
            {row[j] + 1, row[j - 1] + 1, diagonal + (word[i - 1] == choice[j - 1] ? 0 : 1)});
        diagonal = above;
      }
    }
    if (row[choice.size()] < bestDistance) {
      bestDistance = row[choice.size()];
      best = choice;
    }
  }
  return best;
}

}  // namespace tool
