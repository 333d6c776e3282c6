#include "vocabulary/field_names.h"

#include <array>
#include <stdexcept>
#include <type_traits>

namespace nimbara::detail {
namespace {

constexpr std::array<FieldName, 7> kFields = {{
    {"red", kFieldRed, &Command::red, 0, 255, "a colour"},
    {"green", kFieldGreen, &Command::green, 0, 255, "a colour"},
    {"blue", kFieldBlue, &Command::blue, 0, 255, "a colour"},
    {"special", kFieldSpecial, &Command::special, 0, 255, "one special-effect byte"},
    {"time", kFieldTime, &Command::time, -32768, 32767, "one time in milliseconds"},
    {"number", kFieldNumber, &Command::number, 0, 4294967295LL, "one number"},
    {"asks_tank", kFieldAsksTank, &Command::asksTank, 0, 1, "true or false"},
}};

}  // namespace

const FieldName* fieldNamed(const std::string& name) {
  for (const auto& f : kFields) {
    if (name == f.name) return &f;
  }
  return nullptr;
}

const FieldName* fieldNamed(CommandField field) {
  for (const auto& f : kFields) {
    if (field == f.field) return &f;
  }
  return nullptr;
}

void setField(Command& command, const FieldName& field, long long value) {
  if (value < field.low || value > field.high) {
    throw std::invalid_argument(std::string(field.name) + " must be from " +
                                std::to_string(field.low) + " to " + std::to_string(field.high) +
                                ", not " + std::to_string(value));
  }
  std::visit(
      [&](auto member) {
        command.*member = static_cast<std::decay_t<decltype(command.*member)>>(value);
      },
      field.member);
}

long long fieldValue(const Command& command, CommandField field) {
  return std::visit([&](auto member) { return static_cast<long long>(command.*member); },
                    fieldNamed(field)->member);
}

}  // namespace nimbara::detail
