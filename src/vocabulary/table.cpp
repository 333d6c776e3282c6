// The table of the accessory's commands, and what derives from it: the verbs,
// the operation names, a command from its arguments, its frame's time, its
// length, and the verb of a received opcode.
#include <nimbara/api/vocabulary.h>
#include <nimbara/frame/commands.h>

#include <algorithm>
#include <stdexcept>

#include "device/spray_time.h"
#include "vocabulary/field_names.h"

namespace nimbara {
namespace {

constexpr std::uint32_t kQueryFrames = 8820;     // 200 ms
constexpr std::uint32_t kCommandFrames = 17640;  // 400 ms
const std::vector<CommandField> kLed = {kFieldRed, kFieldGreen, kFieldBlue, kFieldSpecial,
                                        kFieldTime};
constexpr unsigned kLedFields = kFieldRed | kFieldGreen | kFieldBlue | kFieldSpecial | kFieldTime;

// The frames, by the library's frame builders.
FrameNode* flashFrame(const Command& c) {
  return createLightLedProtocol(c.red, c.green, c.blue, c.special, sentTime(c));
}
FrameNode* puffFrame(const Command& c) {
  return createSprayWithLightLedGetTankIdProtocol(c.red, c.green, c.blue, c.special, sentTime(c));
}
FrameNode* plainPuffFrame(const Command& c) {
  return createSprayWithLightLedProtocol(c.red, c.green, c.blue, c.special, sentTime(c));
}
FrameNode* sprayFrame(const Command& c) {
  return createSprayProtocol(c.time);
}
FrameNode* stateFrame(const Command&) {
  return createAcquireProtocol();
}
FrameNode* tankFrame(const Command&) {
  return createGetTankIdProtocol();
}
FrameNode* echoFrame(const Command& c) {
  return createEchoProtocol(c.number);
}

}  // namespace

const std::vector<CommandForm>& commandForms() {
  using enum CommandAnswer;
  // clang-format off
  static const std::vector<CommandForm> table = {
  // verb     asks   opcode bits operation                       layout         words fields                       frames          clamps sprays LED    answer frame
    {"flash", false, 4,     48,  "doLightLed",                   kLed,          3,    kLedFields,                  kCommandFrames, false, false, true,  None,  flashFrame},
    {"puff",  true,  5,     48,  "doSprayWithLightLedGetTankId", kLed,          3,    kLedFields | kFieldAsksTank, kCommandFrames, true,  true,  true,  None,  puffFrame},
    {"puff",  false, 2,     48,  "doSprayWithLightLed",          kLed,          3,    kLedFields | kFieldAsksTank, kCommandFrames, true,  true,  true,  None,  plainPuffFrame},
    {"spray", false, 2,     16,  "createSprayProtocol",          {kFieldTime},  1,    kFieldTime,                  kCommandFrames, false, true,  false, None,  sprayFrame},
    {"state", false, 1,     8,   "doAquireDeviceState",          {},            0,    0,                           kQueryFrames,   false, false, false, None,  stateFrame},
    {"tank",  false, 3,     8,   "doGetTankId",                  {},            0,    0,                           kQueryFrames,   false, false, false, Tank,  tankFrame},
    {"echo",  false, 255,   32,  "doEcho",                       {kFieldNumber},1,    kFieldNumber,                kCommandFrames, false, false, false, Echo,  echoFrame},
  };
  // clang-format on
  return table;
}

namespace detail {

const CommandForm* formOfVerb(const std::string& verb, bool asksTank) {
  const auto& table = commandForms();
  const auto found = std::find_if(table.begin(), table.end(), [&](const CommandForm& f) {
    return verb == f.verb && (f.asksTank == asksTank || !(f.fields & kFieldAsksTank));
  });
  return found != table.end() ? &*found : nullptr;
}

const CommandForm* formOfName(const std::string& name) {
  for (const auto& form : commandForms()) {
    if (name == form.operation) return &form;
  }
  return formOfVerb(name, true);
}

}  // namespace detail

const CommandForm& commandForm(const Command& command) {
  const CommandForm* form = detail::formOfVerb(command.verb, command.asksTank);
  if (form == nullptr) throw std::invalid_argument("unknown command \"" + command.verb + "\"");
  return *form;
}

bool verbCarries(const std::string& verb, const std::string& field) {
  const CommandForm* form = detail::formOfVerb(verb, true);
  const detail::FieldName* name = detail::fieldNamed(field);
  return form != nullptr && name != nullptr && (form->fields & name->field) != 0;
}

const std::vector<std::string>& commandVerbs() {
  static const std::vector<std::string> verbs = [] {
    std::vector<std::string> names;
    for (const auto& form : commandForms()) {
      if (std::find(names.begin(), names.end(), form.verb) == names.end()) {
        names.emplace_back(form.verb);
      }
    }
    return names;
  }();
  return verbs;
}

bool isCommandName(const std::string& name) {
  return detail::formOfName(name) != nullptr;
}

Command makeCommand(const std::string& name, const std::vector<long long>& arguments) {
  const CommandForm* form = detail::formOfName(name);
  if (form == nullptr) throw std::invalid_argument("unknown command \"" + name + "\"");
  // A verb may leave out its optional arguments; an operation takes them all.
  const std::size_t required = name == form->verb ? form->required : form->layout.size();
  if (arguments.size() < required || arguments.size() > form->layout.size()) {
    const std::string count =
        required == form->layout.size()
            ? std::to_string(required)
            : std::to_string(required) + " to " + std::to_string(form->layout.size());
    throw std::invalid_argument(name + " takes " + count + " arguments, not " +
                                std::to_string(arguments.size()));
  }
  Command command;
  command.verb = form->verb;
  command.asksTank = form->asksTank;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    detail::setField(command, *detail::fieldNamed(form->layout[i]), arguments[i]);
  }
  return command;
}

std::string operationName(const Command& command) {
  return commandForm(command).operation;
}

std::int16_t sentTime(const Command& command) {
  return commandForm(command).clampsTime ? detail::clampSprayTime(command.time) : command.time;
}

int sprayMilliseconds(const Command& command) {
  return commandForm(command).sprays ? sentTime(command) : 0;
}

std::uint32_t commandFrames(const Command& command) {
  return commandForm(command).frames;
}

const char* verbOfOpcode(unsigned opcode, unsigned parameterBits, bool* asksTank) {
  for (const auto& form : commandForms()) {
    if (form.opcode == opcode && form.parameterBits == parameterBits) {
      if (asksTank != nullptr) *asksTank = form.asksTank;
      return form.verb;
    }
  }
  if (asksTank != nullptr) *asksTank = false;
  return "unknown";
}

}  // namespace nimbara
