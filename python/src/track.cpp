// Scent tracks: a track's cues with their commands, and the whole track as
// samples. Parsing and the overlap rule are the library's; this only carries
// them over.
#include <nimbara/api/vocabulary.h>
#include <nimbara/track/track.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {
namespace {

py::list cuesOf(const std::vector<TrackCue>& cues) {
  py::list out;
  for (const auto& cue : cues) {
    py::dict d;
    d["start"] = cue.start;
    d["line"] = cue.line;
    d["text"] = cue.text;
    d["fields"] = commandFields(cue.command);
    d["frames"] = commandFrames(cue.command);
    out.append(d);
  }
  return out;
}

py::array_t<std::int16_t> renderText(const std::string& text, const std::string& name) {
  std::vector<std::int16_t> samples;
  {
    py::gil_scoped_release release;  // rendering logs, and the log may call into Python
    samples = renderTrack(parseTrack(text, name));
  }
  return stereoArray(std::move(samples));
}

}  // namespace

void bindTrack(py::module_& m) {
  m.def(
      "parse_track",
      [](const std::string& text, const std::string& name) {
        std::vector<TrackCue> cues;
        {
          py::gil_scoped_release release;
          cues = parseTrack(text, name);
        }
        return cuesOf(cues);
      },
      py::arg("text"), py::arg("name"),
      "The cues of a track's text as dicts (start, line, text, fields, frames), the fields "
      "as the command's field map in JSON; "
      "ValueError \"NAME:LINE: ...\" for a bad one.");
  m.def("render_track", &renderText, py::arg("text"), py::arg("name"),
        "The whole track's samples, int16 of shape (frames, 2).");
}

}  // namespace nimbara::python
