// The receiver: transmissions out of interleaved int16 or float32 samples.
// Conversion from other NumPy types and shapes is the Python layer's.
#include <nimbara/api/vocabulary.h>
#include <nimbara/receiver/receiver.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <mutex>
#include <string>
#include <vector>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {

py::dict transmissionDict(const Transmission& t) {
  // Never destroyed: the interpreter may be gone by the time statics are.
  static const py::object* loads = new py::object(py::module_::import("json").attr("loads"));
  return (*loads)(transmissionFields(t));
}

namespace {

py::list toList(const std::vector<Transmission>& transmissions) {
  py::list out;
  for (const auto& t : transmissions) out.append(transmissionDict(t));
  return out;
}

template <typename Sample>
using Samples = py::array_t<Sample, py::array::c_style>;

// One receiver per Python object; its own lock, because Python threads may
// push to it at the same time while the GIL is released. As in C++: push and
// finish decode, take hands out what was decoded.
class PyReceiver {
 public:
  PyReceiver(double sampleRate, int channels)
      : receiver_(sampleRate, channels), channels_(channels) {}

  template <typename Sample>
  void push(const Samples<Sample>& samples) {
    const Sample* data = samples.data();
    const std::size_t frames = static_cast<std::size_t>(samples.size()) / channels_;
    py::gil_scoped_release release;
    std::lock_guard lock(mutex_);
    receiver_.push(data, frames);
  }

  void finish() {
    py::gil_scoped_release release;
    std::lock_guard lock(mutex_);
    receiver_.finish();
  }

  py::list take() {
    std::vector<Transmission> done;
    {
      py::gil_scoped_release release;
      std::lock_guard lock(mutex_);
      done = receiver_.take();
    }
    return toList(done);
  }

 private:
  std::mutex mutex_;
  Receiver receiver_;
  const int channels_;
};

template <typename Sample>
py::list decode(const Samples<Sample>& samples, double sampleRate, int channels) {
  PyReceiver receiver(sampleRate, channels);
  receiver.push(samples);
  receiver.finish();
  return receiver.take();
}

py::list decodeFile(const std::string& path) {
  WavAudio audio;
  std::string error;
  std::vector<Transmission> found;
  bool read = false;
  {
    py::gil_scoped_release release;
    read = readWavFile(path, &audio, &error);
    if (read) found = decodeAudio(audio);
  }
  if (!read) throw py::value_error(error);
  return toList(found);
}

}  // namespace

void bindReceiver(py::module_& m) {
  py::class_<PyReceiver>(m, "Receiver")
      .def(py::init<double, int>(), py::arg("sample_rate"), py::arg("channels"))
      .def("push_int16", &PyReceiver::push<std::int16_t>, py::arg("samples"))
      .def("push_float32", &PyReceiver::push<float>, py::arg("samples"))
      .def("finish", &PyReceiver::finish)
      .def("take", &PyReceiver::take);
  m.def("decode_int16", &decode<std::int16_t>, py::arg("samples"), py::arg("sample_rate"),
        py::arg("channels"));
  m.def("decode_float32", &decode<float>, py::arg("samples"), py::arg("sample_rate"),
        py::arg("channels"));
  m.def("decode_file", &decodeFile, py::arg("path"));
}

}  // namespace nimbara::python
