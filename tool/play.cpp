// play: a timeline of scents from a cue file, one command a line
// ("SECONDS VERB ARGS..."), each starting at its time on the output's clock.
// The library renders the whole timeline and plays it as one transmission, so
// the times hold to the sample.
#include <nimbara/nimbara.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "words.h"

namespace tool {
namespace {

constexpr double kRate = NIMBARA_SAMPLE_RATE;

struct Cue : nimbara::Cue {
  int line = 0;
};

bool isHexColour(const std::string& word) {
  return word.size() == 7 &&
         word.find_first_not_of("0123456789abcdefABCDEF", 1) == std::string::npos;
}

// The words of a line, without a trailing "# comment" (a "#rrggbb" colour stays).
std::vector<std::string> wordsOf(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) {
    if (word[0] == '#' && !isHexColour(word)) break;
    words.push_back(word);
  }
  return words;
}

Cue parseCue(const std::vector<std::string>& words, int line) {
  Cue cue;
  cue.line = line;
  const double at = seconds("the time", words[0]);
  cue.startFrame = static_cast<std::uint64_t>(std::llround(at * kRate));
  if (words.size() < 2) throw UsageError("a time needs a command after it");
  CommandWords c;
  c.verb = words[1];
  for (std::size_t i = 2; i < words.size(); ++i) {
    const std::string& w = words[i];
    const auto value = [&](const char* option) {
      if (i + 1 >= words.size()) throw UsageError(std::string(option) + " needs a value");
      return words[++i];
    };
    if (w == "--time") {
      c.time = value("--time");
    } else if (w == "--special") {
      c.special = value("--special");
    } else if (w == "--no-tank") {
      c.noTank = true;
    } else if (w.rfind("--", 0) == 0) {
      throw UsageError("unknown option " + w);
    } else {
      c.words.push_back(w);
    }
  }
  cue.command = parseCommand(c);
  return cue;
}

std::vector<Cue> readCues(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  std::vector<Cue> cues;
  std::string text;
  for (int line = 1; std::getline(file, text); ++line) {
    const auto words = wordsOf(text);
    if (words.empty()) continue;
    Cue cue;
    try {
      cue = parseCue(words, line);
    } catch (const UsageError& e) {
      throw UsageError(path + ":" + std::to_string(line) + ": " + e.what());
    }
    if (!cues.empty()) {
      const Cue& before = cues.back();
      const std::uint64_t free = before.startFrame + nimbara::commandFrames(before.command);
      if (cue.startFrame < free) {
        char why[160];
        std::snprintf(why, sizeof why,
                      ": starts at %.3f s, before the %s of line %d has finished (at %.3f s)",
                      cue.startFrame / kRate, before.command.verb.c_str(), before.line,
                      free / kRate);
        throw UsageError(path + ":" + std::to_string(line) + why);
      }
    }
    cues.push_back(cue);
  }
  if (cues.empty()) throw UsageError(path + " holds no cue");
  return cues;
}

}  // namespace

int runPlay(const Globals& globals, const std::string& cuePath) {
  const std::vector<Cue> cues = readCues(cuePath);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const Output output = openOutput(globals);
  checkPresence(globals);
  warnAboutLevel(output);
  for (const Cue& cue : cues) {
    char at[32];
    std::snprintf(at, sizeof at, "%.3f s", cue.startFrame / kRate);
    trace(globals, std::string("cue at ") + at + ": " + describeCommand(cue.command));
  }
  const std::int32_t status =
      nimbara::playTimeline(std::vector<nimbara::Cue>(cues.begin(), cues.end()));
  nimbara::platform::waitUntilIdle();
  if (status != 0) failedOutput(globals, output, status);
  for (const Cue& cue : cues) {
    if (globals.json) {
      Json json = commandJson(cue.command);
      json["start"] = cue.startFrame / kRate;
      json["line"] = cue.line;
      std::cout << json.dump() << std::endl;
    } else {
      char at[32];
      std::snprintf(at, sizeof at, "%8.3f s  ", cue.startFrame / kRate);
      say(globals, at + describeCommand(cue.command) + "\n");
    }
  }
  return 0;
}

}  // namespace tool
