// listen: the virtual accessory on a sound server's source, live.
#include <nimbara/nimbara.h>

#include <pulse/error.h>
#include <pulse/simple.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "commands.h"
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

}  // namespace

int runListen(const Globals& globals, const ListenRequest& request) {
  const auto count = static_cast<unsigned>(decimalNumber("--count", request.count, 0, 1000000));
  const double limit = seconds("--seconds", request.seconds);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const std::string source = request.source.empty() ? "@DEFAULT_MONITOR@" : request.source;
  const pa_sample_spec format{PA_SAMPLE_S16LE, 44100, 2};
  pa_buffer_attr attr{};
  attr.maxlength = static_cast<std::uint32_t>(-1);
  attr.fragsize = 44100 * 4 / 50;  // 20 ms: a transmission is reported soon after its end
  int error = 0;
  pa_simple* stream = pa_simple_new(nullptr, "nimbara", PA_STREAM_RECORD, source.c_str(),
                                    "accessory", &format, nullptr, &attr, &error);
  if (stream == nullptr) {
    if (error == PA_ERR_NOENTITY) {
      throw std::runtime_error("there is no source named \"" + source +
                               "\" (pactl list short sources lists them)");
    }
    if (error == PA_ERR_CONNECTIONREFUSED || error == PA_ERR_INVALIDSERVER) {
      throw std::runtime_error("no audio server could be reached to record from");
    }
    throw std::runtime_error("cannot record from " + source + ": " + pa_strerror(error));
  }
  const bool live = isatty(STDERR_FILENO) && globals.verbosity >= 0;
  if (live) std::cerr << "nimbara: listening on " << source << std::endl;
  trace(globals, "listening on " + source);
  const bool colour = terminalShowsTrueColour();
  unsigned heard = 0;
  nimbara::Receiver receiver(44100, 2);
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
  std::int16_t chunk[882 * 2];  // 20 ms
  double shownAt = -1;
  for (;;) {
    if (pa_simple_read(stream, chunk, sizeof chunk, &error) < 0) {
      pa_simple_free(stream);
      throw std::runtime_error(std::string("recording failed: ") + pa_strerror(error));
    }
    receiver.push(chunk, 882);
    receiver.take();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (live && elapsed - shownAt >= 0.1) {
      shownAt = elapsed;
      char status[96];
      std::snprintf(status, sizeof status, "\r\x1b[Klevel %5.1f dB  heard %u  %.1f s",
                    levelDb(chunk, 882 * 2), heard, elapsed);
      std::cerr << status << std::flush;
    }
    if ((count > 0 && heard >= count) || (limit > 0 && elapsed >= limit)) break;
  }
  receiver.finish();
  receiver.take();
  pa_simple_free(stream);
  if (live) std::cerr << "\r\x1b[K";
  if (count > 0 && heard < count) {
    throw std::runtime_error("heard " + std::to_string(heard) + " of " + std::to_string(count) +
                             " transmissions in " + request.seconds + " s");
  }
  return 0;
}

}  // namespace tool
