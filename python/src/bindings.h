// The parts of the extension module, each registered by its own function.
#pragma once

#include <nimbara/receiver/receiver.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <vector>

namespace nimbara::python {

void bindRender(pybind11::module_& m);
void bindReceiver(pybind11::module_& m);
void bindTankId(pybind11::module_& m);
void bindOutput(pybind11::module_& m);
void bindLogHandler(pybind11::module_& m);
void bindTrack(pybind11::module_& m);

// A transmission as the keyword arguments of nimbara.Transmission.
pybind11::dict transmissionDict(const Transmission& transmission);

// Interleaved stereo samples as an array of shape (frames, 2) that owns them.
pybind11::array_t<std::int16_t> stereoArray(std::vector<std::int16_t> samples);

}  // namespace nimbara::python
