// A command to and from its field map, and a received transmission in the
// same field map: the JSON that the tool prints and Python and JavaScript read.
#include <nimbara/api/vocabulary.h>
#include <nimbara/receiver/receiver.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <stdexcept>

#include "vocabulary/field_names.h"

namespace nimbara {
namespace {

using Json = nlohmann::ordered_json;

// The fields of a verb, in the order of the field names.
void addFields(Json& json, unsigned carried, const Command& values) {
  for (const CommandField field : {kFieldRed, kFieldGreen, kFieldBlue, kFieldSpecial, kFieldTime,
                                   kFieldNumber, kFieldAsksTank}) {
    if (!(carried & field)) continue;
    const char* name = detail::fieldNamed(field)->name;
    if (field == kFieldAsksTank) {
      json[name] = values.asksTank;
    } else {
      json[name] = detail::fieldValue(values, field);
    }
  }
}

long long integerField(const std::string& name, const Json& value) {
  if (value.is_number_unsigned() && value.get<unsigned long long>() > 9'000'000'000'000'000ULL) {
    throw std::invalid_argument(name + " is out of range: " + value.dump());
  }
  if (value.is_number_integer()) return value.get<long long>();
  if (value.is_number_float()) {
    const double d = value.get<double>();
    if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 9.0e15) {
      return static_cast<long long>(d);
    }
  }
  throw std::invalid_argument(name + " must be a whole number, not " + value.dump());
}

Json parsedObject(const std::string& text) {
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    throw std::invalid_argument("a command's fields must be a JSON object");
  }
  return json;
}

}  // namespace

Command commandFromFields(const std::string& text) {
  const Json json = parsedObject(text);
  const auto verb = json.find("command");
  if (verb == json.end() || !verb->is_string()) {
    throw std::invalid_argument("a command's fields need \"command\", its verb");
  }
  const std::string name = verb->get<std::string>();
  const auto asks = json.find("asks_tank");
  if (asks != json.end() && !asks->is_boolean()) {
    throw std::invalid_argument("asks_tank must be true or false, not " + asks->dump());
  }
  const CommandForm* form = detail::formOfVerb(name, asks == json.end() || asks->get<bool>());
  if (form == nullptr) {
    const std::string near = nearestWord(name, commandVerbs());
    throw std::invalid_argument("unknown command \"" + name + "\"" +
                                (near.empty() ? "" : " (did you mean " + near + "?)"));
  }
  if (asks != json.end() && !(form->fields & kFieldAsksTank)) {
    throw std::invalid_argument(name + " carries no asks_tank");
  }
  Command command;
  command.verb = form->verb;
  command.asksTank = form->asksTank;
  unsigned given = 0;
  for (const auto& [key, value] : json.items()) {
    if (key == "command" || key == "asks_tank" || key == "sprays" || key == "operation") continue;
    const detail::FieldName* field = detail::fieldNamed(key);
    if (field == nullptr) throw std::invalid_argument("\"" + key + "\" is not a command's field");
    if (!(form->fields & field->field)) {
      throw std::invalid_argument(name + " carries no " + key);
    }
    detail::setField(command, *field, integerField(key, value));
    given |= field->field;
  }
  for (std::size_t i = 0; i < form->required; ++i) {
    if (!(given & form->layout[i])) {
      throw std::invalid_argument(name + " needs " + detail::fieldNamed(form->layout[i])->name);
    }
  }
  // The derived fields, when given, must be this command's.
  const auto sprays = json.find("sprays");
  if (sprays != json.end() &&
      (!(form->sprays) || integerField("sprays", *sprays) != sprayMilliseconds(command))) {
    throw std::invalid_argument("sprays " + sprays->dump() + " does not match the command");
  }
  const auto operation = json.find("operation");
  if (operation != json.end() && *operation != form->operation) {
    throw std::invalid_argument("operation " + operation->dump() + " does not match the command");
  }
  return command;
}

std::string commandFields(const Command& command) {
  const CommandForm& form = commandForm(command);
  Json json{{"command", form.verb}};
  addFields(json, form.fields, command);
  if (form.sprays) json["sprays"] = sprayMilliseconds(command);
  json["operation"] = form.operation;
  return json.dump();
}

std::string transmissionFields(const Transmission& t) {
  Json json{{"command", t.command}, {"opcode", t.opcode}};
  json["start"] = std::round(t.startSeconds * 10000) / 10000;
  json["damaged"] = t.damaged;
  Command values;
  values.red = t.red;
  values.green = t.green;
  values.blue = t.blue;
  values.special = t.special;
  values.time = t.time;
  values.number = t.number;
  values.asksTank = t.asksTank;
  const CommandForm* form = detail::formOfVerb(t.command, t.asksTank);
  addFields(json, form != nullptr ? form->fields : 0u, values);
  json["confidence"] = t.confidence;
  json["snr_db"] = t.snrDb;
  return json.dump();
}

}  // namespace nimbara
