// listen: the virtual accessory on a sound server's source, live.
#include <nimbara/nimbara.h>

#include <pulse/error.h>
#include <pulse/pulseaudio.h>
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

// Whether the server has a source of that name. Some servers (PipeWire's
// PulseAudio interface) quietly record from the default one instead of
// refusing a name they do not know. Unknown (no answer): true, and the
// recording's own error speaks.
bool sourceExists(const std::string& name) {
  pa_mainloop* loop = pa_mainloop_new();
  if (loop == nullptr) return true;
  pa_context* context = pa_context_new(pa_mainloop_get_api(loop), "nimbara");
  struct Answer {
    int state = 0;  // 0 waiting, 1 found, 2 not found
  } answer;
  bool asked = false;
  if (context != nullptr &&
      pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
    for (int i = 0; i < 2000 && answer.state == 0; ++i) {
      if (pa_mainloop_iterate(loop, 1, nullptr) < 0) break;
      const pa_context_state_t state = pa_context_get_state(context);
      if (!PA_CONTEXT_IS_GOOD(state)) break;
      if (state == PA_CONTEXT_READY && !asked) {
        asked = true;
        pa_operation* op = pa_context_get_source_info_by_name(
            context, name.c_str(),
            [](pa_context*, const pa_source_info* info, int eol, void* data) {
              auto* a = static_cast<Answer*>(data);
              if (info != nullptr) a->state = 1;
              if (eol != 0 && a->state == 0) a->state = 2;
            },
            &answer);
        if (op == nullptr) break;
        pa_operation_unref(op);
      }
    }
  }
  if (context != nullptr) {
    pa_context_disconnect(context);
    pa_context_unref(context);
  }
  pa_mainloop_free(loop);
  return answer.state != 2;
}

}  // namespace

int runListen(const Globals& globals, const ListenRequest& request) {
  const auto count = static_cast<unsigned>(decimalNumber("--count", request.count, 0, 1000000));
  const double limit = seconds("--seconds", request.seconds);
  if (globals.verbosity < 2) nimbara::setLogSink({});
  const std::string source = request.source.empty() ? "@DEFAULT_MONITOR@" : request.source;
  if (!request.source.empty() && !sourceExists(source)) {
    throw std::runtime_error("there is no source named \"" + source +
                             "\" (pactl list short sources lists them)");
  }
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
