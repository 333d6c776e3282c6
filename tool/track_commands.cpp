#include "track_commands.h"

#include <nimbara/audio/audio_file.h>
#include <nimbara/log.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "report.h"

namespace tool {

std::vector<nimbara::TrackCue> loadTrack(const std::string& path) {
  try {
    return nimbara::readTrack(path);
  } catch (const nimbara::TrackError& e) {
    throw UsageError(e.what());
  }
}

bool namesTrack(const std::vector<std::string>& words) {
  if (words.size() != 1 || nimbara::isCommandName(words[0])) return false;
  std::error_code error;
  return words[0].ends_with(".vtt") || std::filesystem::is_regular_file(words[0], error);
}

int runRenderTrack(const Globals& globals, const std::string& path, const std::string& out) {
  const auto cues = loadTrack(path);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const auto samples = nimbara::renderTrack(cues);
  nimbara::writeAudioFile(out, samples);
  std::ostream& report = out == "-" ? std::cerr : std::cout;
  if (globals.json) {
    report << Json{{"track", path},
                   {"cues", cues.size()},
                   {"out", out},
                   {"frames", samples.size() / 2}}
                  .dump()
           << std::endl;
  } else if (globals.verbosity >= 0) {
    report << path << ": " << cues.size() << " cues, " << samples.size() / 2
           << " frames at 44100 Hz into " << (out == "-" ? "standard output" : out) << std::endl;
  }
  return 0;
}

double unixNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void reportCue(const Globals& globals, const nimbara::TrackCue& cue, double sent) {
  if (globals.json) {
    Json json{{"cue", cue.start}, {"sent", sent}, {"line", cue.line}};
    json.update(commandJson(cue.command));
    std::cout << json.dump() << std::endl;
  } else {
    char at[32];
    std::snprintf(at, sizeof at, "%8.3f s  ", cue.start);
    say(globals, at + describeCommand(cue.command) + "\n");
  }
}

CueAnnouncer::CueAnnouncer(const Globals& globals, std::vector<nimbara::TrackCue> cues)
    : globals_(globals),
      cues_(std::move(cues)),
      startUnix_(unixNow()),
      start_(std::chrono::steady_clock::now()),
      thread_([this] { run(); }) {}

void CueAnnouncer::finish(bool played) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (finished_) return;
    finished_ = true;
    played_ = played;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void CueAnnouncer::run() {
  for (const auto& cue : cues_) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto due = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(cue.start));
    wake_.wait_until(lock, due, [this] { return finished_; });
    if (finished_ && !played_) return;
    lock.unlock();
    reportCue(globals_, cue, startUnix_ + cue.start);
  }
}

}  // namespace tool
