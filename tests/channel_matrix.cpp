// Decodes every file of a channel matrix built by scripts/channel-matrix and
// scores it against the commands that were sent: exact (the command and its
// arguments reported undamaged), damaged (reported damaged, or missed),
// false (reported undamaged but not sent) and duplicate (an undamaged report
// of a command already reported). The tuned and the held-out parts are
// scored apart. Prints Markdown tables beside minimodem's results where the
// script measured them.
//
// usage: nimbara_channel_matrix DIR [--check]
// --check fails (exit 1) on any false or duplicate report and on a category
// below its least share of exact transmissions.
#include <nimbara/api/command.h>
#include <nimbara/receiver/receiver.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Channel {
  std::string category, name, file, peer;
  int sent = 0;
  std::string part;
};

struct Score {
  int exact = 0, damaged = 0, falseReports = 0, duplicates = 0, sent = 0;
  int wrong() const { return falseReports + duplicates; }
  void add(const Score& s) {
    exact += s.exact, damaged += s.damaged, falseReports += s.falseReports;
    duplicates += s.duplicates, sent += s.sent;
  }
};

// The least share of exact transmissions per category of the tuned part, for
// --check. Set below what the receiver reaches, so that a regression fails.
const std::map<std::string, double> kLeastExact = {
    {"clean", 1.0}, {"codec", 0.9},        {"resampler", 0.85}, {"band limit", 1.0},
    {"room", 0.9},  {"effect", 0.9},       {"speed", 1.0},      {"phone", 0.85},
    {"noise", 0.9}, {"interference", 0.8}, {"stereo", 1.0},     {"sequence", 1.0},
    {"cut", 0.8},   {"nothing", 0.0},
};

// The same for the held-out part, set once at the end of tuning: the
// receiver's floor on what it was not tuned on.
const std::map<std::string, double> kLeastExactHeldOut = {
    {"clean", 1.0},  {"codec", 0.65},       {"resampler", 0.9}, {"band limit", 0.9},
    {"room", 0.75},  {"effect", 0.9},       {"speed", 0.8},     {"phone", 0.85},
    {"noise", 0.72}, {"interference", 0.7}, {"stereo", 1.0},    {"sequence", 1.0},
    {"cut", 0.85},   {"format", 0.85},
};

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream in(line);
  for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
  return fields;
}

bool sameCommand(const nimbara::Transmission& t, const nimbara::Command& c) {
  if (t.command != c.verb) return false;
  if (c.verb == "flash" || c.verb == "puff") {
    return t.red == c.red && t.green == c.green && t.blue == c.blue && t.special == c.special &&
           t.time == nimbara::sentTime(c) && (c.verb != "puff" || t.asksTank == c.asksTank);
  }
  if (c.verb == "spray") return t.time == nimbara::sentTime(c);
  if (c.verb == "echo") return t.number == c.number;
  return true;
}

Score score(const std::vector<nimbara::Transmission>& received,
            const std::vector<nimbara::Command>& sent, int expected) {
  Score s;
  s.sent = expected;
  std::vector<bool> matched(sent.size(), false);
  for (const nimbara::Transmission& t : received) {
    if (t.damaged) continue;
    bool found = false, again = false;
    for (std::size_t i = 0; i < sent.size() && !found && expected > 0; ++i) {
      if (!sameCommand(t, sent[i])) continue;
      if (matched[i])
        again = true;
      else
        matched[i] = found = true;
    }
    found ? ++s.exact : again ? ++s.duplicates : ++s.falseReports;
  }
  s.damaged = expected - s.exact;
  return s;
}

std::vector<nimbara::Command> readCommands(const std::string& path) {
  std::vector<nimbara::Command> sent;
  std::ifstream commands(path);
  for (std::string line; std::getline(commands, line);) {
    std::stringstream in(line);
    std::string operation;
    in >> operation;
    std::vector<long long> arguments;
    for (long long value; in >> value;) arguments.push_back(value);
    sent.push_back(nimbara::makeCommand(operation, arguments));
  }
  return sent;
}

void printCategories(const char* part, const std::map<std::string, Score>& categories,
                     const Score& total) {
  std::printf("\n%s part:\n\n| category | exact | damaged | false | duplicate |\n", part);
  std::printf("|---|---|---|---|---|\n");
  for (const auto& [name, s] : categories) {
    std::printf("| %s | %d/%d (%.0f%%) | %d | %d | %d |\n", name.c_str(), s.exact, s.sent,
                s.sent ? 100.0 * s.exact / s.sent : 100.0, s.damaged, s.falseReports, s.duplicates);
  }
  std::printf("\n%s overall: %d of %d exact (%.1f%%), %d damaged, %d false, %d duplicate.\n", part,
              total.exact, total.sent, total.sent ? 100.0 * total.exact / total.sent : 0.0,
              total.damaged, total.falseReports, total.duplicates);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: nimbara_channel_matrix DIR [--check]\n";
    return 2;
  }
  const std::string dir = argv[1];
  const bool check = argc > 2 && std::string(argv[2]) == "--check";

  const std::map<std::string, std::vector<nimbara::Command>> sent = {
      {"tuned", readCommands(dir + "/commands.txt")},
      {"held-out", readCommands(dir + "/commands_held_out.txt")}};
  std::vector<Channel> channels;
  std::ifstream manifest(dir + "/manifest.txt");
  for (std::string line; std::getline(manifest, line);) {
    const auto f = splitTabs(line);
    if (f.size() >= 5) {
      channels.push_back({f[0], f[1], f[2], f[4], std::stoi(f[3]), f.size() > 5 ? f[5] : "tuned"});
    }
  }
  if (sent.at("tuned").empty() || channels.empty()) {
    std::cerr << "no commands or no manifest in " << dir << "\n";
    return 2;
  }

  std::map<std::string, std::map<std::string, Score>> categories;  // by part
  std::map<std::string, Score> totals;
  int peerExact = 0, peerSent = 0, oursOnPeerChannels = 0;
  bool failed = false;
  std::printf(
      "| part | category | channel | exact | damaged | false | duplicate | minimodem exact |\n");
  std::printf("|---|---|---|---|---|---|---|---|\n");
  for (const Channel& c : channels) {
    nimbara::WavAudio audio;
    std::string error;
    if (!nimbara::readWavFile(dir + "/" + c.file, &audio, &error)) {
      std::cerr << error << "\n";
      return 2;
    }
    const auto commands = sent.find(c.part);
    if (commands == sent.end()) {
      std::cerr << "unknown part " << c.part << " in the manifest\n";
      return 2;
    }
    const Score s = score(nimbara::decodeAudio(audio), commands->second, c.sent);
    std::printf("| %s | %s | %s | %d/%d | %d | %d | %d | %s |\n", c.part.c_str(),
                c.category.c_str(), c.name.c_str(), s.exact, s.sent, s.damaged, s.falseReports,
                s.duplicates,
                c.peer == "-" ? "-" : (c.peer + "/" + std::to_string(c.sent)).c_str());
    categories[c.part][c.category].add(s);
    totals[c.part].add(s);
    if (c.peer != "-") {
      peerExact += std::stoi(c.peer);
      peerSent += c.sent;
      oursOnPeerChannels += s.exact;
    }
    if (s.wrong() > 0) failed = true;
  }
  for (const char* part : {"tuned", "held-out"}) {
    if (categories.count(part) == 0) continue;
    printCategories(part, categories[part], totals[part]);
    const auto& least = std::string(part) == "tuned" ? kLeastExact : kLeastExactHeldOut;
    for (const auto& [name, s] : categories[part]) {
      const auto floor = least.find(name);
      if (check && s.sent > 0 && (floor == least.end() || s.exact < floor->second * s.sent)) {
        std::fprintf(stderr, "%s part, %s: %d of %d exact, below the least expected\n", part,
                     name.c_str(), s.exact, s.sent);
        failed = true;
      }
    }
  }
  if (peerSent > 0) {
    std::printf(
        "\nOn the %d transmissions of the signal-processing channels: ours %d exact "
        "(%.1f%%), minimodem %d (%.1f%%).\n",
        peerSent, oursOnPeerChannels, 100.0 * oursOnPeerChannels / peerSent, peerExact,
        100.0 * peerExact / peerSent);
  }
  return check && failed ? 1 : 0;
}
