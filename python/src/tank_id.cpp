// TankId: the library's record with its packed form and Base64 text.
#include <nimbara/tank/TankId.h>
#include <pybind11/pybind11.h>

#include <limits>
#include <memory>
#include <string>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {
namespace {

using TankIdPtr = std::shared_ptr<TankId>;

template <typename Value>
Value checked(const char* field, long long value) {
  if (value < 0 || value > std::numeric_limits<Value>::max()) {
    throw py::value_error(std::string(field) + " must be from 0 to " +
                          std::to_string(std::numeric_limits<Value>::max()) + ", not " +
                          std::to_string(value));
  }
  return static_cast<Value>(value);
}

// A property of the record, range-checked on assignment.
template <typename Value>
void field(py::class_<TankId, TankIdPtr>& cls, const char* name, Value (TankId::*get)() const,
           void (TankId::*set)(Value)) {
  cls.def_property(
      name, [get](const TankId& t) { return static_cast<long long>((t.*get)()); },
      [name, set](TankId& t, long long value) { (t.*set)(checked<Value>(name, value)); });
}

Data toData(const py::bytes& bytes) {
  const std::string raw = bytes;
  return Data(raw.begin(), raw.end());
}

TankIdPtr decoded(const Data& data, const char* what) {
  if (data.size() < 7) {
    throw py::value_error(std::string(what) + " must hold at least 7 bytes, not " +
                          std::to_string(data.size()));
  }
  auto tank = std::make_shared<TankId>();
  tank->decode(data);
  return tank;
}

}  // namespace

void bindTankId(py::module_& m) {
  py::class_<TankId, TankIdPtr> cls(m, "TankId");
  cls.def(py::init([](long long year, long long month, long long day, long long scentId,
                      long long serialId, long long reserve1, long long reserve2) {
            auto t = std::make_shared<TankId>();
            t->setYear(checked<std::uint8_t>("year", year));
            t->setMonth(checked<std::uint8_t>("month", month));
            t->setDay(checked<std::uint8_t>("day", day));
            t->setScentId(checked<std::uint16_t>("scent_id", scentId));
            t->setSerialId(checked<std::uint16_t>("serial_id", serialId));
            t->setReserve1(checked<std::uint8_t>("reserve1", reserve1));
            t->setReserve2(checked<std::uint16_t>("reserve2", reserve2));
            return t;
          }),
          py::kw_only(), py::arg("year") = 0, py::arg("month") = 0, py::arg("day") = 0,
          py::arg("scent_id") = 0, py::arg("serial_id") = 0, py::arg("reserve1") = 0,
          py::arg("reserve2") = 0);
  field<std::uint8_t>(cls, "year", &TankId::year, &TankId::setYear);
  field<std::uint8_t>(cls, "month", &TankId::month, &TankId::setMonth);
  field<std::uint8_t>(cls, "day", &TankId::day, &TankId::setDay);
  field<std::uint16_t>(cls, "scent_id", &TankId::scentId, &TankId::setScentId);
  field<std::uint16_t>(cls, "serial_id", &TankId::serialId, &TankId::setSerialId);
  field<std::uint8_t>(cls, "reserve1", &TankId::reserve1, &TankId::setReserve1);
  field<std::uint16_t>(cls, "reserve2", &TankId::reserve2, &TankId::setReserve2);
  cls.def("encode", [](const TankId& t) {
    const Data data = t.encode();
    return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
  });
  cls.def_static(
      "decode", [](const py::bytes& data) { return decoded(toData(data), "data"); },
      py::arg("data"));
  cls.def("to_base64", &TankId::encodeBase64);
  cls.def_static(
      "from_base64",
      [](const std::string& text) {
        const Data data = dataFromBase64String(text);
        return decoded(data, "the decoded text");
      },
      py::arg("text"));
  cls.def("__str__", &TankId::description);
  cls.def("__repr__", [](const TankId& t) {
    return "TankId(year=" + std::to_string(t.year()) + ", month=" + std::to_string(t.month()) +
           ", day=" + std::to_string(t.day()) + ", scent_id=" + std::to_string(t.scentId()) +
           ", serial_id=" + std::to_string(t.serialId()) +
           ", reserve1=" + std::to_string(t.reserve1()) +
           ", reserve2=" + std::to_string(t.reserve2()) + ")";
  });
  cls.def(
      "__eq__",
      [](const TankId& a, const TankId& b) {
        return a.year() == b.year() && a.month() == b.month() && a.day() == b.day() &&
               a.scentId() == b.scentId() && a.serialId() == b.serialId() &&
               a.reserve1() == b.reserve1() && a.reserve2() == b.reserve2();
      },
      py::is_operator());
  cls.attr("__hash__") = py::none();
}

}  // namespace nimbara::python
