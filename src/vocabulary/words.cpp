// A command from the words a person types: numbers, colours, the verb and its
// options, the same in the tool, Python and JavaScript.
#include <nimbara/api/vocabulary.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "vocabulary/css_colours.h"
#include "vocabulary/field_names.h"

namespace nimbara {
namespace {

// A word as it can be quoted back: a very long one is cut.
std::string quoted(const std::string& text) {
  return "\"" + (text.size() <= 24 ? text : text.substr(0, 20) + "...") + "\"";
}

bool isHex(const std::string& text) {
  return text.size() == 6 && std::all_of(text.begin(), text.end(),
                                         [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// The words after the verb, with the options taken out.
struct Words {
  std::vector<std::string> plain;
  std::optional<std::string> special, time;
  bool noTank = false;
};

Words splitOptions(const std::vector<std::string>& words) {
  Words out;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (!word.starts_with("--")) {
      out.plain.push_back(word);
      continue;
    }
    if (word == "--no-tank") {
      out.noTank = true;
      continue;
    }
    const std::size_t equals = word.find('=');
    const std::string option = word.substr(0, equals);
    std::optional<std::string>* value = option == "--special" ? &out.special
                                        : option == "--time"  ? &out.time
                                                              : nullptr;
    if (value == nullptr) throw std::invalid_argument("unknown option " + quoted(option));
    if (equals != std::string::npos) {
      *value = word.substr(equals + 1);
    } else if (i + 1 < words.size()) {
      *value = words[++i];
    } else {
      throw std::invalid_argument(option + " needs a value");
    }
  }
  return out;
}

Command ledCommand(const CommandForm& form, const Words& w) {
  const Colour rgb = colourFromWords(w.plain);
  const auto option = [](const std::optional<std::string>& text, CommandField field,
                         long long otherwise) {
    const detail::FieldName& f = *detail::fieldNamed(field);
    return text ? decimalWord(f.name, *text, f.low, f.high) : otherwise;
  };
  Command command =
      makeCommand(form.verb, {rgb.red, rgb.green, rgb.blue, option(w.special, kFieldSpecial, 0),
                              option(w.time, kFieldTime, 500)});
  command.asksTank = !w.noTank;
  return command;
}

// A verb whose words are its own fields, each a decimal number.
Command plainCommand(const CommandForm& form, const std::string& verb, const Words& w) {
  if (w.plain.size() != form.layout.size()) {
    const std::string what =
        form.layout.empty() ? "nothing" : detail::fieldNamed(form.layout[0])->asOnlyWord;
    throw std::invalid_argument(verb + " takes " + what + ", not " +
                                std::to_string(w.plain.size()) + " words");
  }
  std::vector<long long> numbers;
  for (std::size_t i = 0; i < w.plain.size(); ++i) {
    const detail::FieldName& f = *detail::fieldNamed(form.layout[i]);
    numbers.push_back(decimalWord(f.name, w.plain[i], f.low, f.high));
  }
  return makeCommand(verb, numbers);
}

}  // namespace

long long decimalWord(const std::string& name, const std::string& text, long long low,
                      long long high) {
  const std::size_t start = !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
  const bool decimal = text.size() > start &&
                       std::all_of(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(),
                                   [](unsigned char c) { return std::isdigit(c) != 0; });
  if (!decimal)
    throw std::invalid_argument(name + " must be a decimal number, not " + quoted(text));
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || value < low || value > high) {
    throw std::invalid_argument(name + " must be from " + std::to_string(low) + " to " +
                                std::to_string(high) + ", not " + quoted(text));
  }
  return value;
}

Colour colourFromWords(const std::vector<std::string>& words) {
  const auto byte = [](const char* name, const std::string& word) {
    return static_cast<std::uint8_t>(decimalWord(name, word, 0, 255));
  };
  if (words.size() == 3) {
    return {byte("red", words[0]), byte("green", words[1]), byte("blue", words[2])};
  }
  if (words.size() != 1) {
    throw std::invalid_argument(
        "a colour is R G B or one word (#rrggbb, rrggbb or a CSS name), not " +
        std::to_string(words.size()) + " words");
  }
  std::string word = words[0];
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const std::string hex = !word.empty() && word[0] == '#' ? word.substr(1) : word;
  if (isHex(hex)) {
    const long value = std::strtol(hex.c_str(), nullptr, 16);
    return {static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>((value >> 8) & 0xFF),
            static_cast<std::uint8_t>(value & 0xFF)};
  }
  if (const auto* named = detail::cssColour(word)) {
    return {static_cast<std::uint8_t>(named->red), static_cast<std::uint8_t>(named->green),
            static_cast<std::uint8_t>(named->blue)};
  }
  throw std::invalid_argument(quoted(words[0]) +
                              " is not a colour (R G B, #rrggbb, rrggbb or a CSS name)");
}

std::string nearestWord(const std::string& word, const std::vector<std::string>& choices) {
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

Command commandFromWords(const std::vector<std::string>& words) {
  if (words.empty()) throw std::invalid_argument("no command: give a verb (flash, puff, ...)");
  const std::string& verb = words[0];
  const CommandForm* form = detail::formOfName(verb);
  if (form == nullptr) {
    const std::string near = nearestWord(verb, commandVerbs());
    throw std::invalid_argument("unknown command " + quoted(verb) +
                                (near.empty() ? "" : " (did you mean " + near + "?)"));
  }
  const Words w = splitOptions(words);
  const bool verbWithColour = verb == form->verb && form->lightsLed;
  if (!verbWithColour && (w.special || w.time || w.noTank)) {
    throw std::invalid_argument(verb + " takes no --special, --time or --no-tank");
  }
  if (w.noTank && !(form->fields & kFieldAsksTank)) {
    throw std::invalid_argument("only puff takes --no-tank");
  }
  if (verbWithColour) return ledCommand(*form, w);
  if (verb == form->verb) return plainCommand(*form, verb, w);
  // A library operation name: its own numeric arguments, in its order.
  std::vector<long long> numbers;
  for (const auto& word : w.plain) {
    numbers.push_back(decimalWord("argument", word, -4294967296LL, 4294967295LL));
  }
  return makeCommand(verb, numbers);
}

}  // namespace nimbara
