// Reading the command line's words: decimal numbers, seconds, and a device
// command from its verb and words, through the library's vocabulary.
#pragma once

#include <nimbara/api/command.h>

#include <optional>
#include <string>
#include <vector>

#include "commands.h"

namespace tool {

// A decimal integer from low to high ("010" is ten); a UsageError names the
// word and what it should be.
long long decimalNumber(const std::string& name, const std::string& text, long long low,
                        long long high);

// A decimal or fractional number of seconds, finite and not negative.
double seconds(const std::string& name, const std::string& text);

// The words after a verb, and its options, as the tool takes them.
struct CommandWords {
  std::string verb;
  std::vector<std::string> words;
  std::optional<std::string> special, time;
  bool noTank = false;
};

// The words as the library takes them: the verb, its words, its options.
std::vector<std::string> commandLine(const CommandWords& words);

// The command, or a UsageError naming what is wrong. The library's operation
// names are taken too, with their own arguments in the library's order.
nimbara::Command parseCommand(const CommandWords& words);

// The nearest of `choices` to `word`, for "did you mean ...?"; empty if none
// is close.
std::string nearest(const std::string& word, const std::vector<std::string>& choices);

}  // namespace tool
