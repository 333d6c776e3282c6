// How the tool tells what it did and found: text lines, or JSON in the
// library's field map (command, red, green, blue, special, time, number,
// asks_tank, ...). The lines for commands and transmissions, and what the
// accessory does, are the library's (nimbara::describeCommand,
// nimbara::accessoryAction).
#pragma once

#include <nimbara/api/command.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/tank/TankId.h>

#include <nlohmann/json.hpp>

#include <string>

#include "commands.h"

namespace tool {

using Json = nlohmann::ordered_json;

// A command's field map.
Json commandJson(const nimbara::Command& command);

// A received transmission: command, opcode, file (when given), start,
// damaged, its arguments, confidence.
Json transmissionJson(const nimbara::Transmission& t, const std::string& file);
std::string describeTransmission(const nimbara::Transmission& t);

Json tankJson(const nimbara::TankId& tank);

// Whether standard output is a terminal that shows 24-bit colour and the
// user has not asked for none (NO_COLOR).
bool terminalShowsTrueColour();

// Human text on stdout, unless quiet.
void say(const Globals& globals, const std::string& text);
// The -v trace on stderr: what was sent, and when.
void trace(const Globals& globals, const std::string& text);

}  // namespace tool
