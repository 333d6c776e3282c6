#include "words.h"

#include <nimbara/api/vocabulary.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace tool {

long long decimalNumber(const std::string& name, const std::string& text, long long low,
                        long long high) {
  try {
    return nimbara::decimalWord(name, text, low, high);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

double seconds(const std::string& name, const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value) || value < 0) {
    const std::string shown = text.size() <= 24 ? text : text.substr(0, 20) + "...";
    throw UsageError(name + " must be a number of seconds, 0 or more, not \"" + shown + "\"");
  }
  return value;
}

std::vector<std::string> commandLine(const CommandWords& c) {
  std::vector<std::string> line{c.verb};
  line.insert(line.end(), c.words.begin(), c.words.end());
  if (c.special) line.insert(line.end(), {"--special", *c.special});
  if (c.time) line.insert(line.end(), {"--time", *c.time});
  if (c.noTank) line.emplace_back("--no-tank");
  return line;
}

nimbara::Command parseCommand(const CommandWords& c) {
  try {
    return nimbara::commandFromWords(commandLine(c));
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

std::string nearest(const std::string& word, const std::vector<std::string>& choices) {
  return nimbara::nearestWord(word, choices);
}

}  // namespace tool
