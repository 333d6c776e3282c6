// A command's fields by name: their range, and reading and setting them.
#pragma once

#include <nimbara/api/vocabulary.h>

#include <string>
#include <variant>

namespace nimbara::detail {

// The member of Command that holds a field.
using FieldMember = std::variant<std::uint8_t Command::*, std::int16_t Command::*,
                                 std::uint32_t Command::*, bool Command::*>;

struct FieldName {
  const char* name;
  CommandField field;
  FieldMember member;
  long long low, high;
  // How the words of a verb that takes only this field name it.
  const char* asOnlyWord;
};

// The field of that name or bit, or null.
const FieldName* fieldNamed(const std::string& name);
const FieldName* fieldNamed(CommandField field);

// Sets a field, or throws std::invalid_argument when the value is out of its
// range ("red must be from 0 to 255, not 300").
void setField(Command& command, const FieldName& field, long long value);
long long fieldValue(const Command& command, CommandField field);

// The rows of a verb (the puff's with or without the tank query), and of a
// verb or an operation name; null when there is none.
const CommandForm* formOfVerb(const std::string& verb, bool asksTank);
const CommandForm* formOfName(const std::string& name);

}  // namespace nimbara::detail
