// Commands: their field maps from words or fields, and their exact samples as
// a NumPy array, no audio device needed.
#include <nimbara/api/command.h>
#include <nimbara/api/vocabulary.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <vector>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {
namespace {

py::array_t<std::int16_t> samplesOf(const Command& command) {
  std::vector<std::int16_t> samples;
  {
    // Building a frame logs, and the log may call back into Python.
    py::gil_scoped_release release;
    samples = renderCommand(command);
  }
  return stereoArray(std::move(samples));
}

}  // namespace

void bindRender(py::module_& m) {
  m.def(
      "render",
      [](const std::string& name, const std::vector<long long>& arguments) {
        return samplesOf(makeCommand(name, arguments));
      },
      py::arg("name"), py::arg("arguments"),
      "Interleaved stereo int16 samples, shape (frames, 2), of a command by its arguments.");
  m.def(
      "render_fields",
      [](const std::string& fields) { return samplesOf(commandFromFields(fields)); },
      py::arg("fields"), "The samples of a command given as its field map (JSON).");
  m.def(
      "command_from_words",
      [](const std::vector<std::string>& words) { return commandFields(commandFromWords(words)); },
      py::arg("words"), "The field map (JSON) of a command given as the tool's words.");
  m.def(
      "command_fields",
      [](const std::string& fields) { return commandFields(commandFromFields(fields)); },
      py::arg("fields"), "The field map (JSON) of a command given as its field map, checked.");
  m.def(
      "command_names", [] { return commandVerbs(); }, "The verbs, in order.");
}

}  // namespace nimbara::python
