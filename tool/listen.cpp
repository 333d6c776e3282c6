// listen: the virtual accessory on a sound server's source.
#include <nimbara/nimbara.h>

#include <pulse/error.h>
#include <pulse/simple.h>

#include <chrono>
#include <iostream>

#include "commands.h"
#include "report.h"

namespace tool {

int runListen(const Globals& globals, const ListenRequest& request) {
  const std::string source = request.source.empty() ? "@DEFAULT_MONITOR@" : request.source;
  const pa_sample_spec format{PA_SAMPLE_S16LE, 44100, 2};
  pa_buffer_attr attr{};
  attr.maxlength = static_cast<std::uint32_t>(-1);
  attr.fragsize = 44100 * 4 / 50;  // 20 ms
  int error = 0;
  pa_simple* stream = pa_simple_new(nullptr, "nimbara", PA_STREAM_RECORD, source.c_str(),
                                    "accessory", &format, nullptr, &attr, &error);
  if (stream == nullptr) {
    throw std::runtime_error("cannot record from " + source + ": " + pa_strerror(error) +
                             " (is an audio server running?)");
  }
  std::cerr << "nimbara: listening on " << source << std::endl;

  const bool colour = terminalShowsTrueColour();
  unsigned heard = 0;
  nimbara::Receiver receiver(44100, 2);
  receiver.onTransmission([&](const nimbara::Transmission& t) {
    ++heard;
    if (globals.json) {
      std::cout << describeTransmission(t, true) << std::endl;
    } else {
      std::cout << describeTransmission(t, false) << "  ->  accessory "
                << accessoryAction(t, colour) << std::endl;
    }
  });
  const auto started = std::chrono::steady_clock::now();
  std::int16_t chunk[882 * 2];  // 20 ms
  for (;;) {
    if (pa_simple_read(stream, chunk, sizeof chunk, &error) < 0) {
      pa_simple_free(stream);
      throw std::runtime_error(std::string("recording failed: ") + pa_strerror(error));
    }
    receiver.push(chunk, 882);
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if ((request.count > 0 && heard >= request.count) ||
        (request.seconds > 0 && elapsed >= request.seconds)) {
      break;
    }
  }
  receiver.finish();
  pa_simple_free(stream);
  return 0;
}

}  // namespace tool
