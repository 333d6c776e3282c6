// parseTrack over arbitrary text, read as WebVTT and as a cue file: it either
// gives cues in order of time that do not overlap, or a one-line TrackError
// naming the track; nothing else escapes.
#include <nimbara/track/track.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const char* name : {"f.vtt", "f.cues"}) {
    try {
      const auto cues = nimbara::parseTrack(text, name);
      if (cues.empty()) std::abort();
      for (std::size_t i = 1; i < cues.size(); ++i) {
        const auto& before = cues[i - 1];
        if (cues[i].startFrame < before.startFrame + nimbara::commandFrames(before.command)) {
          std::abort();
        }
      }
    } catch (const nimbara::TrackError& e) {
      const std::string message = e.what();
      if (message.rfind(name, 0) != 0 || message.find('\n') != std::string::npos) std::abort();
    }
  }
  return 0;
}
