// A cue's text to its command: the one place a track meets the command
// vocabulary. Text starting with "{" is the command's field map, anything
// else the tool's words.
#include <sstream>
#include <stdexcept>

#include "nimbara/api/vocabulary.h"
#include "nimbara/track/track.h"

namespace nimbara {
namespace {

std::vector<std::string> splitWords(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

}  // namespace

Command cueCommand(const std::string& text) {
  const std::vector<std::string> words = splitWords(text);
  if (words.empty()) throw std::invalid_argument("a cue needs a command");
  return words[0][0] == '{' ? commandFromFields(text) : commandFromWords(words);
}

}  // namespace nimbara
