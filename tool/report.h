// How the tool tells what it found: text lines or JSON objects.
#pragma once

#include <nimbara/receiver/receiver.h>
#include <nimbara/tank/TankId.h>

#include <string>

namespace tool {

// A string as a JSON literal.
std::string jsonString(const std::string& text);

// One line for a decoded transmission.
std::string describeTransmission(const nimbara::Transmission& t, bool json);

// What the accessory does on hearing a transmission, with the LED's colour
// as a true-colour block when `colour` is set.
std::string accessoryAction(const nimbara::Transmission& t, bool colour);

// Whether standard output is a terminal that shows 24-bit colour.
bool terminalShowsTrueColour();

}  // namespace tool
