// listen: the virtual accessory on a capture stream of the chosen backend
// (a sound server's sink monitor by default), live.
#include <nimbara/nimbara.h>

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "words.h"

namespace tool {
namespace {

// The level of a block of samples, in dB below full scale.
double levelDb(const std::int16_t* samples, std::size_t count) {
  double sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum += double(samples[i]) * samples[i];
  const double rms = std::sqrt(sum / std::max<std::size_t>(count, 1)) / 32768.0;
  return rms > 0 ? 20 * std::log10(rms) : -120;
}

// The capture stream on the source, or the one-line error for its failure.
std::unique_ptr<nimbara::platform::CaptureStream> openSource(const Globals& globals,
                                                             const std::string& source) {
  const auto backend = chosenBackend(globals);
  std::unique_ptr<nimbara::platform::CaptureStream> stream;
  const std::int32_t status = backend->openCapture(source, &stream);
  const std::string name = source.empty() ? "the default source" : source;
  switch (status) {
    case NIMBARA_AUDIO_OK:
      return stream;
    case NIMBARA_AUDIO_ERR_NO_SUCH_NAME:
      throw std::runtime_error("there is no source named \"" + source +
                               "\" (pactl list short sources lists them)");
    case NIMBARA_AUDIO_ERR_NO_SERVER:
      throw std::runtime_error("no audio server could be reached to record from");
    case NIMBARA_AUDIO_ERR_NOT_SUPPORTED:
      throw std::runtime_error(std::string("the ") + backend->name() +
                               " output has nothing to record from");
    default:
      throw std::runtime_error("cannot record from " + name + ": " +
                               nimbaraAudioStatusText(status));
  }
}

}  // namespace

int runListen(const Globals& globals, const ListenRequest& request) {
  const auto count = static_cast<unsigned>(decimalNumber("--count", request.count, 0, 1000000));
  const double limit = seconds("--seconds", request.seconds);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const auto stream = openSource(globals, request.source);
  const std::string source = request.source.empty() ? "the default source" : request.source;
  const bool live = isatty(STDERR_FILENO) && globals.verbosity >= 0;
  if (live) std::cerr << "nimbara: listening on " << source << std::endl;
  trace(globals, "listening on " + source);
  const bool colour = terminalShowsTrueColour();
  unsigned heard = 0;
  nimbara::Receiver receiver(NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS);
  receiver.onTransmission([&](const nimbara::Transmission& t) {
    ++heard;
    if (live) std::cerr << "\r\x1b[K";
    if (globals.json) {
      std::cout << transmissionJson(t, "").dump() << std::endl;
    } else {
      say(globals,
          describeTransmission(t) + "  ->  accessory " + accessoryAction(t, colour) + "\n");
    }
  });
  const auto started = std::chrono::steady_clock::now();
  constexpr std::size_t kChunkFrames = NIMBARA_SAMPLE_RATE / 50;  // 20 ms
  std::int16_t chunk[kChunkFrames * NIMBARA_CHANNELS];
  double shownAt = -1;
  for (;;) {
    if (const std::int32_t status = stream->read(chunk, kChunkFrames)) {
      throw std::runtime_error(std::string("recording failed: ") + nimbaraAudioStatusText(status));
    }
    receiver.push(chunk, kChunkFrames);
    receiver.take();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (live && elapsed - shownAt >= 0.1) {
      shownAt = elapsed;
      char status[96];
      std::snprintf(status, sizeof status, "\r\x1b[Klevel %5.1f dB  heard %u  %.1f s",
                    levelDb(chunk, std::size(chunk)), heard, elapsed);
      std::cerr << status << std::flush;
    }
    if ((count > 0 && heard >= count) || (limit > 0 && elapsed >= limit)) break;
  }
  receiver.finish();
  receiver.take();
  if (live) std::cerr << "\r\x1b[K";
  if (count > 0 && heard < count) {
    throw std::runtime_error("heard " + std::to_string(heard) + " of " + std::to_string(count) +
                             " transmissions in " + request.seconds + " s");
  }
  return 0;
}

}  // namespace tool
