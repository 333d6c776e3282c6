// WebVTT as far as a metadata track needs it: the header, cues with their
// identifiers, timings and settings, and the NOTE, STYLE and REGION blocks,
// which are skipped. The cue's payload is kept raw (no markup is read).
#include <cctype>
#include <cstdint>
#include <sstream>

#include "track/track_text.h"

namespace nimbara::track {
namespace {

// Lines split on LF, CRLF or CR, without a byte-order mark.
std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::size_t i = text.rfind("\xEF\xBB\xBF", 0) == 0 ? 3 : 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\r' || c == '\n') {
      lines.push_back(line);
      line.clear();
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else {
      line += c;
    }
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

bool startsWord(const std::string& line, const char* word) {
  const std::string w(word);
  return line.rfind(w, 0) == 0 &&
         (line.size() == w.size() || line[w.size()] == ' ' || line[w.size()] == '\t');
}

bool blank(const std::string& line) {
  return line.find_first_not_of(" \t") == std::string::npos;
}

// The digits at `at`: their value and count, `at` moved past them.
std::size_t digits(const std::string& s, std::size_t& at, std::uint64_t& value) {
  const std::size_t from = at;
  value = 0;
  while (at < s.size() && std::isdigit(static_cast<unsigned char>(s[at])) != 0 && at - from < 12) {
    value = value * 10 + static_cast<std::uint64_t>(s[at] - '0');
    ++at;
  }
  return at - from;
}

// "mm:ss.ttt" or "hh:mm:ss.ttt" (hours two digits or more) at `at`, in
// milliseconds; minutes and seconds two digits each, below 60.
bool timestamp(const std::string& s, std::size_t& at, std::uint64_t& milliseconds) {
  std::uint64_t parts[3] = {0, 0, 0};
  std::size_t widths[3] = {0, 0, 0};
  std::size_t count = 0;
  while (count < 3) {
    widths[count] = digits(s, at, parts[count]);
    ++count;
    if (at >= s.size() || s[at] != ':') break;
    ++at;
  }
  if (count < 2 || widths[0] < 2 || widths[count - 1] != 2 || widths[count - 2] != 2) return false;
  if (count == 2 && widths[0] != 2) return false;
  if (at >= s.size() || s[at] != '.') return false;
  ++at;
  std::uint64_t fraction = 0;
  if (digits(s, at, fraction) != 3) return false;
  const std::uint64_t hours = count == 3 ? parts[0] : 0;
  const std::uint64_t minutes = parts[count - 2], seconds = parts[count - 1];
  if (minutes > 59 || seconds > 59) return false;
  milliseconds = ((hours * 60 + minutes) * 60 + seconds) * 1000 + fraction;
  return true;
}

void skipBlanks(const std::string& s, std::size_t& at) {
  while (at < s.size() && (s[at] == ' ' || s[at] == '\t')) ++at;
}

// A timing line, "START --> END [settings]": the start in seconds.
double timing(const std::string& line, int number) {
  std::size_t at = 0;
  std::uint64_t start = 0, end = 0;
  const auto bad = [&](const std::string& what) { return LineError{number, what}; };
  if (!timestamp(line, at, start)) {
    throw bad("the cue's start is not a time (mm:ss.ttt or hh:mm:ss.ttt)");
  }
  skipBlanks(line, at);
  if (line.compare(at, 3, "-->") != 0) throw bad("the cue's timing needs \"-->\" after its start");
  at += 3;
  skipBlanks(line, at);
  if (!timestamp(line, at, end)) {
    throw bad("the cue's end is not a time (mm:ss.ttt or hh:mm:ss.ttt)");
  }
  if (at < line.size() && line[at] != ' ' && line[at] != '\t') {
    throw bad("the cue's end is not a time (mm:ss.ttt or hh:mm:ss.ttt)");
  }
  if (end < start) throw bad("the cue ends before it starts");
  return static_cast<double>(start) / 1000.0;
}

}  // namespace

bool isWebVtt(const std::string& text) {
  const std::size_t bom = text.rfind("\xEF\xBB\xBF", 0) == 0 ? 3 : 0;
  if (text.compare(bom, 6, "WEBVTT") != 0) return false;
  return text.size() == bom + 6 || std::string(" \t\r\n").find(text[bom + 6]) != std::string::npos;
}

std::vector<CueText> webVttCues(const std::string& text) {
  const std::vector<std::string> lines = linesOf(text);
  if (!isWebVtt(text)) throw LineError{1, "a WebVTT file starts with \"WEBVTT\""};
  std::vector<CueText> cues;
  std::size_t i = 1;
  // The header's own lines, up to a blank line (or a cue's timing, which
  // ends the header too).
  while (i < lines.size() && !blank(lines[i]) && lines[i].find("-->") == std::string::npos) ++i;
  while (i < lines.size()) {
    if (blank(lines[i])) {
      ++i;
      continue;
    }
    // A block runs to the next blank line.
    std::size_t end = i;
    while (end < lines.size() && !blank(lines[end])) ++end;
    const std::string& first = lines[i];
    const bool skipped =
        startsWord(first, "NOTE") || startsWord(first, "STYLE") || startsWord(first, "REGION");
    if (!skipped) {
      std::size_t timingLine = i;
      if (first.find("-->") == std::string::npos) ++timingLine;  // an identifier first
      const int number = static_cast<int>(timingLine) + 1;
      if (timingLine >= end || lines[timingLine].find("-->") == std::string::npos) {
        throw LineError{static_cast<int>(i) + 1, "a cue needs a timing line (START --> END)"};
      }
      CueText cue;
      cue.start = timing(lines[timingLine], number);
      if (timingLine + 1 >= end) throw LineError{number, "the cue has no command"};
      cue.line = number + 1;
      for (std::size_t k = timingLine + 1; k < end; ++k) {
        if (lines[k].find("-->") != std::string::npos) {
          throw LineError{static_cast<int>(k) + 1, "a blank line must end the cue before \"-->\""};
        }
        cue.text += (k > timingLine + 1 ? "\n" : "") + lines[k];
      }
      cues.push_back(cue);
    }
    i = end;
  }
  return cues;
}

std::vector<CueText> cueFileCues(const std::string& text) {
  const std::vector<std::string> lines = linesOf(text);
  std::vector<CueText> cues;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const int number = static_cast<int>(i) + 1;
    std::istringstream in(lines[i]);
    std::string time, word, rest;
    if (!(in >> time) || time[0] == '#') continue;
    for (; in >> word;) {
      const bool colour = word.size() == 7 &&
                          word.find_first_not_of("0123456789abcdefABCDEF", 1) == std::string::npos;
      if (word[0] == '#' && !colour) break;
      rest += (rest.empty() ? "" : " ") + word;
    }
    char* end = nullptr;
    const double start = std::strtod(time.c_str(), &end);
    if (*end != '\0' || !(start >= 0) || start > 1e9) {
      throw LineError{number,
                      "the time must be a number of seconds, 0 or more, not \"" + time + "\""};
    }
    if (rest.empty()) throw LineError{number, "a time needs a command after it"};
    cues.push_back({start, number, rest});
  }
  return cues;
}

}  // namespace nimbara::track
