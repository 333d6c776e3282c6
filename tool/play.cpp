// play: a timeline of scents from a cue file, one command a line
// ("SECONDS VERB ARGS..."), each starting at its time on the output's clock.
// The whole timeline is rendered first and played as one stream, so the
// times hold to the sample.
#include <nimbara/nimbara.h>

#include <atomic>
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

struct Cue {
  int line = 0;
  std::uint64_t startFrame = 0;
  nimbara::Command command;
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
  cue.startFrame = static_cast<std::uint64_t>(std::llround(at * 44100.0));
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
                      cue.startFrame / 44100.0, before.command.verb.c_str(), before.line,
                      free / 44100.0);
        throw UsageError(path + ":" + std::to_string(line) + why);
      }
    }
    cues.push_back(cue);
  }
  if (cues.empty()) throw UsageError(path + " holds no cue");
  return cues;
}

// Plays interleaved stereo samples on the current output as one stream and
// waits until the output has taken the last of them.
class StreamPlayer {
 public:
  explicit StreamPlayer(const std::vector<std::int16_t>& samples) : samples_(samples) {}

  std::int32_t play() {
    NimbaraStreamFormat format{44100.0,
                               NIMBARA_FORMAT_LINEAR_PCM,
                               NIMBARA_FORMAT_FLAG_SIGNED_INTEGER | NIMBARA_FORMAT_FLAG_PACKED,
                               4,
                               1,
                               4,
                               2,
                               16,
                               0};
    NimbaraAudioQueueRef queue = nullptr;
    std::int32_t status =
        nimbaraAudioQueueNewOutput(&format, &StreamPlayer::onBuffer, this, 0, &queue);
    for (int i = 0; i < 3 && status == 0; ++i) {
      NimbaraAudioBufferRef buffer = nullptr;
      status = nimbaraAudioQueueAllocateBuffer(queue, kFrames * 4, &buffer);
      if (status == 0 && next_ < frames()) status = fill(queue, buffer);
    }
    if (status == 0) status = nimbaraAudioQueueStart(queue);
    if (status == 0) {
      nimbaraAudioQueueWaitUntilDone(queue);
      status = nimbaraAudioQueueGetStatus(queue);
    }
    nimbaraAudioQueueRelease(queue);
    return status;
  }

 private:
  static constexpr std::uint32_t kFrames = 735;

  std::size_t frames() const { return samples_.size() / 2; }

  std::int32_t fill(NimbaraAudioQueueRef queue, NimbaraAudioBufferRef buffer) {
    const std::size_t n = std::min<std::size_t>(kFrames, frames() - next_);
    auto* out = static_cast<std::int16_t*>(buffer->audioData);
    std::memcpy(out, samples_.data() + 2 * next_, n * 4);
    std::memset(out + 2 * n, 0, (kFrames - n) * 4);
    buffer->audioDataByteSize = kFrames * 4;
    next_ += n;
    ++enqueued_;
    return nimbaraAudioQueueEnqueueBuffer(queue, buffer);
  }

  // On the queue's thread: refill, and once every buffer has come back
  // played, end the stream.
  static void onBuffer(void* user, NimbaraAudioQueueRef queue, NimbaraAudioBufferRef buffer) {
    auto* self = static_cast<StreamPlayer*>(user);
    ++self->returned_;
    if (self->next_ < self->frames()) {
      self->fill(queue, buffer);
    } else if (self->returned_ == self->enqueued_) {
      nimbaraAudioQueueDispose(queue, true);
    }
  }

  const std::vector<std::int16_t>& samples_;
  std::size_t next_ = 0;  // the priming, then the queue's thread
  unsigned enqueued_ = 0, returned_ = 0;
};

}  // namespace

int runPlay(const Globals& globals, const std::string& cuePath) {
  const std::vector<Cue> cues = readCues(cuePath);
  const Cue& last = cues.back();
  std::vector<std::int16_t> timeline(2 * (last.startFrame + nimbara::commandFrames(last.command)));
  if (globals.verbosity < 2) nimbara::setLogSink({});
  for (const Cue& cue : cues) {
    const auto samples = nimbara::renderCommand(cue.command);
    const std::size_t room = timeline.size() - 2 * cue.startFrame;
    std::copy_n(samples.begin(), std::min(samples.size(), room),
                timeline.begin() + 2 * cue.startFrame);
  }
  const Output output = openOutput(globals);
  checkPresence(globals);
  warnAboutLevel(output);
  for (const Cue& cue : cues) {
    char at[32];
    std::snprintf(at, sizeof at, "%.3f s", cue.startFrame / 44100.0);
    trace(globals, std::string("cue at ") + at + ": " + describeCommand(cue.command));
  }
  StreamPlayer player(timeline);
  const std::int32_t status = player.play();
  nimbara::platform::waitUntilIdle();
  if (status != 0) failedOutput(globals, output, status);
  for (const Cue& cue : cues) {
    if (globals.json) {
      Json json = commandJson(cue.command);
      json["start"] = cue.startFrame / 44100.0;
      json["line"] = cue.line;
      std::cout << json.dump() << std::endl;
    } else {
      char at[32];
      std::snprintf(at, sizeof at, "%8.3f s  ", cue.startFrame / 44100.0);
      say(globals, at + describeCommand(cue.command) + "\n");
    }
  }
  return 0;
}

}  // namespace tool
