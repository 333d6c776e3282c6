#include "vocabulary/field_names.h"

#include <array>
#include <stdexcept>

namespace nimbara::detail {
namespace {

constexpr std::array<FieldName, 7> kFields = {{
    {"red", kFieldRed, 0, 255, "a colour"},
    {"green", kFieldGreen, 0, 255, "a colour"},
    {"blue", kFieldBlue, 0, 255, "a colour"},
    {"special", kFieldSpecial, 0, 255, "one special-effect byte"},
    {"time", kFieldTime, -32768, 32767, "one time in milliseconds"},
    {"number", kFieldNumber, 0, 4294967295LL, "one number"},
    {"asks_tank", kFieldAsksTank, 0, 1, "true or false"},
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
  switch (field.field) {
    case kFieldRed:
      command.red = static_cast<std::uint8_t>(value);
      break;
    case kFieldGreen:
      command.green = static_cast<std::uint8_t>(value);
      break;
    case kFieldBlue:
      command.blue = static_cast<std::uint8_t>(value);
      break;
    case kFieldSpecial:
      command.special = static_cast<std::uint8_t>(value);
      break;
    case kFieldTime:
      command.time = static_cast<std::int16_t>(value);
      break;
    case kFieldNumber:
      command.number = static_cast<std::uint32_t>(value);
      break;
    case kFieldAsksTank:
      command.asksTank = value != 0;
      break;
  }
}

long long fieldValue(const Command& command, CommandField field) {
  switch (field) {
    case kFieldRed:
      return command.red;
    case kFieldGreen:
      return command.green;
    case kFieldBlue:
      return command.blue;
    case kFieldSpecial:
      return command.special;
    case kFieldTime:
      return command.time;
    case kFieldNumber:
      return command.number;
    case kFieldAsksTank:
      return command.asksTank ? 1 : 0;
  }
  return 0;
}

}  // namespace nimbara::detail
