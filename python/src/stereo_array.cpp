// Rendered samples handed to NumPy without a copy: the array's capsule owns
// the vector they live in.
#include <memory>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {

py::array_t<std::int16_t> stereoArray(std::vector<std::int16_t> samples) {
  auto owned = std::make_unique<std::vector<std::int16_t>>(std::move(samples));
  const auto frames = static_cast<py::ssize_t>(owned->size() / 2);
  std::int16_t* data = owned->data();
  py::capsule owner(owned.get(),
                    [](void* p) { delete static_cast<std::vector<std::int16_t>*>(p); });
  owned.release();
  return py::array_t<std::int16_t>(
      {frames, py::ssize_t{2}},
      {py::ssize_t{2 * sizeof(std::int16_t)}, py::ssize_t{sizeof(std::int16_t)}}, data, owner);
}

}  // namespace nimbara::python
