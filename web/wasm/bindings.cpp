// The C functions the JavaScript package calls. They wrap the library's
// command renderer and receiver; no exception leaves them: a failure returns
// null or -1 and leaves its one-line message in nimbara_web_error().
#include <emscripten/emscripten.h>
#include <nimbara/api/command.h>
#include <nimbara/device/route.h>
#include <nimbara/log.h>
#include <nimbara/receiver/receiver.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string lastError;

// Catches whatever `body` throws into lastError; returns `failed` then.
template <typename Result, typename Body>
Result guarded(Result failed, Body body) {
  try {
    lastError.clear();
    return body();
  } catch (const std::exception& e) {
    lastError = e.what();
  } catch (...) {
    lastError = "unknown failure";
  }
  return failed;
}

// JavaScript hands numbers over as doubles; commands take whole numbers.
nimbara::Command commandOf(const char* name, const double* arguments, int count) {
  std::vector<long long> whole;
  for (int i = 0; i < count; ++i) {
    const double a = arguments[i];
    if (!std::isfinite(a) || a != std::trunc(a) || std::fabs(a) > 9.0e15) {
      throw std::invalid_argument("argument " + std::to_string(i + 1) + " must be a whole number");
    }
    whole.push_back(static_cast<long long>(a));
  }
  return nimbara::makeCommand(name, whole);
}

// A command as the page shows it: the fields read by nimbara.js at these
// offsets.
struct WebCommand {
  char verb[8];                                      // 0
  char operation[32];                                // 8
  std::uint32_t number;                              // 40
  std::int32_t time;                                 // 44: the time sent (a puff's clamped)
  std::int32_t sprayMs;                              // 48
  std::uint32_t frames;                              // 52
  std::uint8_t red, green, blue, special, asksTank;  // 56..60
};
static_assert(offsetof(WebCommand, number) == 40 && offsetof(WebCommand, red) == 56 &&
              sizeof(WebCommand) == 64);

// A transmission: the fields read by nimbara.js at these offsets.
struct WebTransmission {
  double start;                                                       // 0
  double confidence;                                                  // 8
  double snrDb;                                                       // 16
  std::uint32_t number;                                               // 24
  std::int32_t time;                                                  // 28
  std::uint8_t opcode, red, green, blue, special, damaged, asksTank;  // 32..38
  char command[9];                                                    // 39
};
static_assert(sizeof(WebTransmission) == 48 && offsetof(WebTransmission, command) == 39);

void copyText(char* out, std::size_t size, const std::string& text) {
  const std::size_t n = std::min(text.size(), size - 1);
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

WebTransmission webTransmission(const nimbara::Transmission& t) {
  WebTransmission w{};
  w.start = t.startSeconds;
  w.confidence = t.confidence;
  w.snrDb = t.snrDb;
  w.number = t.number;
  w.time = t.time;
  w.opcode = t.opcode;
  w.red = t.red;
  w.green = t.green;
  w.blue = t.blue;
  w.special = t.special;
  w.damaged = t.damaged;
  w.asksTank = t.asksTank;
  copyText(w.command, sizeof w.command, t.command);
  return w;
}

struct WebReceiver {
  WebReceiver(double rate, int channels) : receiver(rate, channels) {}
  nimbara::Receiver receiver;
  std::vector<WebTransmission> taken;  // the last take(), read by JavaScript
};

// The library logs every frame it builds; a page or a Node program has no use
// for those lines on its console.
[[maybe_unused]] const bool kSilenced = [] {
  nimbara::setLogSink({});
  return true;
}();

}  // namespace

extern "C" {

EMSCRIPTEN_KEEPALIVE const char* nimbara_web_error() {
  return lastError.c_str();
}

// The command's interleaved stereo samples in a malloc'd block (the caller
// frees it), their count in *samples.
EMSCRIPTEN_KEEPALIVE std::int16_t* nimbara_web_render(const char* name, const double* arguments,
                                                      int count, std::uint32_t* samples) {
  return guarded<std::int16_t*>(nullptr, [&] {
    const std::vector<std::int16_t> rendered =
        nimbara::renderCommand(commandOf(name, arguments, count));
    auto* out = static_cast<std::int16_t*>(std::malloc(rendered.size() * sizeof(std::int16_t)));
    if (out == nullptr) throw std::bad_alloc();
    std::memcpy(out, rendered.data(), rendered.size() * sizeof(std::int16_t));
    *samples = static_cast<std::uint32_t>(rendered.size());
    return out;
  });
}

EMSCRIPTEN_KEEPALIVE int nimbara_web_describe(const char* name, const double* arguments, int count,
                                              WebCommand* out) {
  return guarded(-1, [&] {
    const nimbara::Command c = commandOf(name, arguments, count);
    *out = WebCommand{};
    copyText(out->verb, sizeof out->verb, c.verb);
    copyText(out->operation, sizeof out->operation, nimbara::operationName(c));
    out->number = c.number;
    out->time = nimbara::sentTime(c);
    out->sprayMs = nimbara::sprayMilliseconds(c);
    out->frames = nimbara::commandFrames(c);
    out->red = c.red;
    out->green = c.green;
    out->blue = c.blue;
    out->special = c.special;
    out->asksTank = c.verb == "puff" && c.asksTank;
    return 0;
  });
}

EMSCRIPTEN_KEEPALIVE int nimbara_web_route_names_headset(const char* route) {
  return nimbara::routeNamesHeadset(route) ? 1 : 0;
}

EMSCRIPTEN_KEEPALIVE WebReceiver* nimbara_web_receiver_new(double rate, int channels) {
  return guarded<WebReceiver*>(nullptr, [&] { return new WebReceiver(rate, channels); });
}

EMSCRIPTEN_KEEPALIVE void nimbara_web_receiver_delete(WebReceiver* receiver) {
  delete receiver;
}

EMSCRIPTEN_KEEPALIVE int nimbara_web_receiver_push_int16(WebReceiver* receiver,
                                                         const std::int16_t* samples,
                                                         std::uint32_t frames) {
  return guarded(-1, [&] {
    receiver->receiver.push(samples, frames);
    return 0;
  });
}

EMSCRIPTEN_KEEPALIVE int nimbara_web_receiver_push_float(WebReceiver* receiver,
                                                         const float* samples,
                                                         std::uint32_t frames) {
  return guarded(-1, [&] {
    receiver->receiver.push(samples, frames);
    return 0;
  });
}

EMSCRIPTEN_KEEPALIVE int nimbara_web_receiver_finish(WebReceiver* receiver) {
  return guarded(-1, [&] {
    receiver->receiver.finish();
    return 0;
  });
}

// The transmissions decoded since the last call, in *records until the next
// call; returns their count.
EMSCRIPTEN_KEEPALIVE int nimbara_web_receiver_take(WebReceiver* receiver,
                                                   const WebTransmission** records) {
  return guarded(-1, [&] {
    receiver->taken.clear();
    for (const nimbara::Transmission& t : receiver->receiver.take()) {
      receiver->taken.push_back(webTransmission(t));
    }
    *records = receiver->taken.data();
    return static_cast<int>(receiver->taken.size());
  });
}

}  // extern "C"
