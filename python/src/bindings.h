// The parts of the extension module, each registered by its own function.
#pragma once

#include <nimbara/receiver/receiver.h>
#include <pybind11/pybind11.h>

namespace nimbara::python {

void bindRender(pybind11::module_& m);
void bindReceiver(pybind11::module_& m);
void bindTankId(pybind11::module_& m);
void bindOutput(pybind11::module_& m);
void bindLogHandler(pybind11::module_& m);
void bindTrack(pybind11::module_& m);

// A transmission as the keyword arguments of nimbara.Transmission.
pybind11::dict transmissionDict(const Transmission& transmission);

}  // namespace nimbara::python
