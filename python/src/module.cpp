// nimbara._nimbara: the library's commands, receiver, tank identity, audio
// outputs and log, for the Python package around it.
#include "bindings.h"

PYBIND11_MODULE(_nimbara, m) {
  m.doc() = "The C++ core of the nimbara package; use the nimbara package instead.";
  m.attr("__version__") = NIMBARA_VERSION;
  nimbara::python::bindRender(m);
  nimbara::python::bindReceiver(m);
  nimbara::python::bindTankId(m);
  nimbara::python::bindOutput(m);
  nimbara::python::bindLogHandler(m);
  nimbara::python::bindTrack(m);
}
