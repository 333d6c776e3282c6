// Decodes every file of a channel matrix built by scripts/channel-matrix and
// scores it against the commands that were sent: exact (the command and its
// arguments reported undamaged), damaged (reported damaged, or missed) and
// wrong (reported undamaged but not sent, or reported twice). Prints a
// Markdown table beside minimodem's results where the script measured them.
//
// usage: nimbara_channel_matrix DIR [--check]
// --check fails (exit 1) on any wrong report and on a category below its
// least share of exact transmissions.
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
};

struct Score {
  int exact = 0, damaged = 0, wrong = 0, sent = 0;
};

// The least share of exact transmissions per category, for --check. Set
// below what the receiver reaches, so that a regression fails.
const std::map<std::string, double> kLeastExact = {
    {"clean", 1.0}, {"codec", 0.9},        {"resampler", 0.85}, {"band limit", 1.0},
    {"room", 0.9},  {"effect", 0.9},       {"speed", 1.0},      {"phone", 0.85},
    {"noise", 0.9}, {"interference", 0.8}, {"stereo", 1.0},     {"sequence", 1.0},
    {"cut", 0.8},   {"nothing", 0.0},
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
    bool found = false;
    for (std::size_t i = 0; i < sent.size() && !found && expected > 0; ++i) {
      if (!matched[i] && sameCommand(t, sent[i])) matched[i] = found = true;
    }
    found ? ++s.exact : ++s.wrong;
  }
  s.damaged = expected - s.exact;
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: nimbara_channel_matrix DIR [--check]\n";
    return 2;
  }
  const std::string dir = argv[1];
  const bool check = argc > 2 && std::string(argv[2]) == "--check";

  std::vector<nimbara::Command> sent;
  std::ifstream commands(dir + "/commands.txt");
  for (std::string line; std::getline(commands, line);) {
    std::stringstream in(line);
    std::string operation;
    in >> operation;
    std::vector<long long> arguments;
    for (long long value; in >> value;) arguments.push_back(value);
    sent.push_back(nimbara::makeCommand(operation, arguments));
  }
  std::vector<Channel> channels;
  std::ifstream manifest(dir + "/manifest.txt");
  for (std::string line; std::getline(manifest, line);) {
    const auto f = splitTabs(line);
    if (f.size() == 5) channels.push_back({f[0], f[1], f[2], f[4], std::stoi(f[3])});
  }
  if (sent.empty() || channels.empty()) {
    std::cerr << "no commands or no manifest in " << dir << "\n";
    return 2;
  }

  std::map<std::string, Score> categories;
  Score total;
  int peerExact = 0, peerSent = 0, oursOnPeerChannels = 0;
  bool failed = false;
  std::printf("| category | channel | exact | damaged | wrong | minimodem exact |\n");
  std::printf("|---|---|---|---|---|---|\n");
  for (const Channel& c : channels) {
    nimbara::WavAudio audio;
    std::string error;
    if (!nimbara::readWavFile(dir + "/" + c.file, &audio, &error)) {
      std::cerr << error << "\n";
      return 2;
    }
    const Score s = score(nimbara::decodeAudio(audio), sent, c.sent);
    std::printf("| %s | %s | %d/%d | %d | %d | %s |\n", c.category.c_str(), c.name.c_str(), s.exact,
                s.sent, s.damaged, s.wrong,
                c.peer == "-" ? "-" : (c.peer + "/" + std::to_string(c.sent)).c_str());
    Score& cat = categories[c.category];
    cat.exact += s.exact, cat.damaged += s.damaged, cat.wrong += s.wrong, cat.sent += s.sent;
    total.exact += s.exact, total.damaged += s.damaged, total.wrong += s.wrong;
    total.sent += s.sent;
    if (c.peer != "-") {
      peerExact += std::stoi(c.peer);
      peerSent += c.sent;
      oursOnPeerChannels += s.exact;
    }
    if (s.wrong > 0) failed = true;
  }
  std::printf("\n| category | exact | damaged | wrong |\n|---|---|---|---|\n");
  for (const auto& [name, s] : categories) {
    std::printf("| %s | %d/%d | %d | %d |\n", name.c_str(), s.exact, s.sent, s.damaged, s.wrong);
    const auto least = kLeastExact.find(name);
    if (check && s.sent > 0 && (least == kLeastExact.end() || s.exact < least->second * s.sent)) {
      std::fprintf(stderr, "%s: %d of %d exact, below the least expected\n", name.c_str(), s.exact,
                   s.sent);
      failed = true;
    }
  }
  std::printf("\nOverall: %d of %d exact (%.1f%%), %d damaged, %d wrong.\n", total.exact,
              total.sent, total.sent ? 100.0 * total.exact / total.sent : 0.0, total.damaged,
              total.wrong);
  if (peerSent > 0) {
    std::printf(
        "On the %d transmissions of the signal-processing channels: ours %d exact "
        "(%.1f%%), minimodem %d (%.1f%%).\n",
        peerSent, oursOnPeerChannels, 100.0 * oursOnPeerChannels / peerSent, peerExact,
        100.0 * peerExact / peerSent);
  }
  return check && failed ? 1 : 0;
}
