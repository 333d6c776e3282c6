// How the tool tells what it did and found: text lines, or JSON with one set
// of field names everywhere (command, red, green, blue, special, time, number,
// asks_tank, ...).
#pragma once

#include <nimbara/api/command.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/tank/TankId.h>

#include <nlohmann/json.hpp>

#include <string>

#include "commands.h"

namespace tool {

using Json = nlohmann::ordered_json;

// A command's fields: those of its verb, and for a puff what it sprays.
Json commandJson(const nimbara::Command& command);
// One line for a command: "puff rgb(255, 165, 0) special 0 time 600 ms", with
// the spray clamp spelled out when it applies.
std::string describeCommand(const nimbara::Command& command);

// A received transmission: command, opcode, file (when given), start,
// damaged, its arguments, confidence.
Json transmissionJson(const nimbara::Transmission& t, const std::string& file);
std::string describeTransmission(const nimbara::Transmission& t);

Json tankJson(const nimbara::TankId& tank);

// What the accessory does on hearing a transmission, with the LED's colour
// as a true-colour block when `colour` is set.
std::string accessoryAction(const nimbara::Transmission& t, bool colour);

// Whether standard output is a terminal that shows 24-bit colour and the
// user has not asked for none (NO_COLOR).
bool terminalShowsTrueColour();

// Human text on stdout, unless quiet.
void say(const Globals& globals, const std::string& text);
// The -v trace on stderr: what was sent, and when.
void trace(const Globals& globals, const std::string& text);

}  // namespace tool
