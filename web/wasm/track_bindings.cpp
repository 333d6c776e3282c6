// Scent tracks for the JavaScript package: a track's text parsed by the
// library into JSON, each cue's command as the vocabulary's field map, so that
// the package needs no record layout. No exception
// leaves: a failure is the JSON {"error": "NAME:LINE: ..."}.
#include <emscripten/emscripten.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/track/track.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string cuesJson(const std::string& text, const std::string& name) {
  try {
    std::string json = "{\"cues\":[";
    for (const auto& cue : nimbara::parseTrack(text, name)) {
      char start[32];
      std::snprintf(start, sizeof start, "%.3f", cue.start);
      if (json.back() != '[') json += ",";
      json += "{\"start\":" + std::string(start) + ",\"line\":" + std::to_string(cue.line) +
              ",\"text\":" + quoted(cue.text) + ",\"command\":" + quoted(cue.command.verb) +
              ",\"fields\":" + nimbara::commandFields(cue.command) +
              ",\"frames\":" + std::to_string(nimbara::commandFrames(cue.command)) + "}";
    }
    return json + "]}";
  } catch (const std::exception& e) {
    return "{\"error\":" + quoted(e.what()) + "}";
  }
}

}  // namespace

extern "C" {

// The track's cues as JSON in a malloc'd string (the caller frees it); null
// only when memory runs out.
EMSCRIPTEN_KEEPALIVE char* nimbara_web_parse_track(const char* text, const char* name) {
  try {
    const std::string json = cuesJson(text, name);
    char* out = static_cast<char*>(std::malloc(json.size() + 1));
    if (out != nullptr) std::memcpy(out, json.c_str(), json.size() + 1);
    return out;
  } catch (...) {
    return nullptr;
  }
}
}
