// The C functions the JavaScript package calls. They wrap the library's
// command vocabulary, renderer and receiver, and speak its field maps (JSON
// text); no exception leaves them: a failure returns null or -1 and leaves its
// one-line message in nimbara_web_error().
#include <emscripten/emscripten.h>
#include <nimbara/api/command.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/device/route.h>
#include <nimbara/log.h>
#include <nimbara/receiver/receiver.h>

#include <nlohmann/json.hpp>

#include <cmath>
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
std::string lastText;  // the text a function returned, until the next call

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

const char* text(std::string value) {
  lastText = std::move(value);
  return lastText.c_str();
}

// The words arrive as a JSON array of strings.
std::vector<std::string> wordsOf(const char* json) {
  const auto parsed = nlohmann::json::parse(json, nullptr, false);
  std::vector<std::string> words;
  if (parsed.is_array()) {
    for (const auto& word : parsed) {
      if (!word.is_string()) break;
      words.push_back(word.get<std::string>());
    }
    if (words.size() == parsed.size()) return words;
  }
  throw std::invalid_argument("a command's words must be strings");
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

struct WebReceiver {
  WebReceiver(double rate, int channels) : receiver(rate, channels) {}
  nimbara::Receiver receiver;
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

// The field map of a command given as the tool's words (a JSON array).
EMSCRIPTEN_KEEPALIVE const char* nimbara_web_command_from_words(const char* words) {
  return guarded<const char*>(nullptr, [&] {
    return text(nimbara::commandFields(nimbara::commandFromWords(wordsOf(words))));
  });
}

// The field map of a command given as a verb or an operation and its numbers
// in order.
EMSCRIPTEN_KEEPALIVE const char* nimbara_web_command_from_arguments(const char* name,
                                                                    const double* arguments,
                                                                    int count) {
  return guarded<const char*>(
      nullptr, [&] { return text(nimbara::commandFields(commandOf(name, arguments, count))); });
}

// The field map of a command given as its field map, checked and completed.
EMSCRIPTEN_KEEPALIVE const char* nimbara_web_command_fields(const char* fields) {
  return guarded<const char*>(
      nullptr, [&] { return text(nimbara::commandFields(nimbara::commandFromFields(fields))); });
}

// The fields a verb carries, as a JSON array of their names.
EMSCRIPTEN_KEEPALIVE const char* nimbara_web_verb_fields(const char* verb) {
  return guarded<const char*>(nullptr, [&] {
    if (!nimbara::isCommandName(verb)) {
      throw std::invalid_argument("unknown command \"" + std::string(verb) + "\"");
    }
    std::string list = "[";
    for (const char* field : {"red", "green", "blue", "special", "time", "number", "asks_tank"}) {
      if (!nimbara::verbCarries(verb, field)) continue;
      if (list.size() > 1) list += ",";
      list += "\"" + std::string(field) + "\"";
    }
    return text(list + "]");
  });
}

// The frames of a command's transmission.
EMSCRIPTEN_KEEPALIVE int nimbara_web_command_frames(const char* fields) {
  return guarded(-1, [&] {
    return static_cast<int>(nimbara::commandFrames(nimbara::commandFromFields(fields)));
  });
}

// The command's interleaved stereo samples in a malloc'd block (the caller
// frees it), their count in *samples.
EMSCRIPTEN_KEEPALIVE std::int16_t* nimbara_web_render(const char* fields, std::uint32_t* samples) {
  return guarded<std::int16_t*>(nullptr, [&] {
    const std::vector<std::int16_t> rendered =
        nimbara::renderCommand(nimbara::commandFromFields(fields));
    auto* out = static_cast<std::int16_t*>(std::malloc(rendered.size() * sizeof(std::int16_t)));
    if (out == nullptr) throw std::bad_alloc();
    std::memcpy(out, rendered.data(), rendered.size() * sizeof(std::int16_t));
    *samples = static_cast<std::uint32_t>(rendered.size());
    return out;
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

// The field maps of the transmissions decoded since the last call, as a JSON
// array.
EMSCRIPTEN_KEEPALIVE const char* nimbara_web_receiver_take(WebReceiver* receiver) {
  return guarded<const char*>(nullptr, [&] {
    std::string list = "[";
    for (const nimbara::Transmission& t : receiver->receiver.take()) {
      if (list.size() > 1) list += ",";
      list += nimbara::transmissionFields(t);
    }
    return text(list + "]");
  });
}

}  // extern "C"
