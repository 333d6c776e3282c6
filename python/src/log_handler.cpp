// The library's log into a Python callable, or nowhere (the default).
//
// The library calls its sink with its own lock held, on the thread that
// logged or on its log thread. The sink takes the GIL; so no thread may log
// while holding the GIL, and every binding releases the GIL around library
// calls that log. A handler that raises loses its line (the exception is
// reported as unraisable); a KeyboardInterrupt it raises is re-armed so that
// the interrupted call still raises it.
#include <nimbara/log.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <string_view>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {
namespace {

void deliver(const py::object& handler, std::string_view line) {
  py::gil_scoped_acquire gil;
  try {
    py::object text = py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(line.data(), static_cast<Py_ssize_t>(line.size()), "replace"));
    if (!text) throw py::error_already_set();
    handler(text);
  } catch (py::error_already_set& e) {
    if (e.matches(PyExc_KeyboardInterrupt)) {
      PyErr_SetInterrupt();
    } else {
      e.discard_as_unraisable("nimbara log handler");
    }
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
    PyErr_WriteUnraisable(handler.ptr());
  }
}

void setLogHandler(py::object handler) {
  LogSink sink;
  if (!handler.is_none()) {
    if (!PyCallable_Check(handler.ptr())) {
      throw py::type_error("the log handler must be callable or None");
    }
    // Released under the GIL, whichever thread drops the last copy.
    std::shared_ptr<py::object> held(new py::object(std::move(handler)), [](py::object* p) {
      py::gil_scoped_acquire gil;
      delete p;
    });
    sink = [held](std::string_view line) { deliver(*held, line); };
  }
  // Lines still queued go to the old handler first, which takes the GIL.
  py::gil_scoped_release release;
  setLogSink(std::move(sink));
}

}  // namespace

void bindLogHandler(py::module_& m) {
  m.def("set_log_handler", &setLogHandler, py::arg("handler"));
  m.def("flush_log", [] {
    py::gil_scoped_release release;
    flushLog();
  });
  py::gil_scoped_release release;
  setLogSink({});  // silent, as Python libraries are
}

}  // namespace nimbara::python
