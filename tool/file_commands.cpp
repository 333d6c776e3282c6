// render and decode: the signal as an audio file, and back.
#include <nimbara/nimbara.h>

#include <iostream>

#include "commands.h"
#include "report.h"
#include "words.h"

namespace tool {

int runRender(const Globals& globals, const RenderRequest& request) {
  if (request.words.empty()) throw UsageError("render needs a command (flash, puff, ...)");
  CommandWords words;
  words.verb = request.words[0];
  words.words.assign(request.words.begin() + 1, request.words.end());
  if (!request.special.empty()) words.special = request.special;
  if (!request.time.empty()) words.time = request.time;
  words.noTank = request.noTank;
  const nimbara::Command command = parseCommand(words);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const auto samples = nimbara::renderCommand(command);
  nimbara::writeAudioFile(request.out, samples);
  trace(globals, "rendered " + describeCommand(command));

  // Standard output carries the WAV itself: the report goes to stderr then.
  std::ostream& report = request.out == "-" ? std::cerr : std::cout;
  if (globals.json) {
    Json json = commandJson(command);
    json["out"] = request.out;
    json["frames"] = samples.size() / 2;
    report << json.dump() << std::endl;
  } else if (globals.verbosity >= 0) {
    report << describeCommand(command) << ": " << samples.size() / 2 << " frames at 44100 Hz into "
           << (request.out == "-" ? "standard output" : request.out) << std::endl;
  }
  return 0;
}

int runDecode(const Globals& globals, const DecodeRequest& request) {
  nimbara::RawPcm raw;
  raw.raw = request.raw;
  if (request.raw) {
    raw.rate = static_cast<int>(decimalNumber("--rate", request.rate, 8000, 192000));
    raw.channels = static_cast<int>(decimalNumber("--channels", request.channels, 1, 64));
  }
  if (globals.verbosity < 2) nimbara::setLogSink({});
  std::size_t found = 0;
  const bool several = request.files.size() > 1;
  for (const std::string& path : request.files) {
    std::unique_ptr<nimbara::Receiver> receiver;
    const auto print = [&](const nimbara::Transmission& t) {
      ++found;
      if (globals.json) {
        std::cout << transmissionJson(t, path).dump() << std::endl;
      } else {
        say(globals, (several ? path + ": " : "") + describeTransmission(t) + "\n");
      }
    };
    const auto block = [&](const float* samples, std::size_t frames,
                           const nimbara::AudioFileFormat& info) {
      if (!receiver) {
        receiver = std::make_unique<nimbara::Receiver>(info.rate, info.channels);
        receiver->onTransmission(print);
      }
      receiver->push(samples, frames);
      receiver->take();  // printed as they came; nothing is kept
    };
    nimbara::readAudioFile(path, block, raw);
    receiver->finish();
    receiver->take();
  }
  if (found == 0 && !globals.json) std::cerr << "nimbara: no transmission found\n";
  return 0;
}

}  // namespace tool
