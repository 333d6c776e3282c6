/* The accessory's commands by verb, as the tool, the Python module and the web
 * page name them: flash, puff, spray, state, tank and echo, one per frame of
 * the command catalogue. A command can be rendered into the exact samples its
 * operation hands the output (no audio device needed) or sent on the current
 * audio backend, and a received transmission is named with the same verbs. */
#ifndef NIMBARA_API_COMMAND_H
#define NIMBARA_API_COMMAND_H

#include <nimbara/export.h>

#ifdef __cplusplus
#include <cstdint>
#include <string>
#include <vector>

namespace nimbara {

/** One command and its arguments. Fields a verb does not take are ignored. */
struct Command {
  /** "flash", "puff", "spray", "state", "tank" or "echo". */
  std::string verb;
  /** flash and puff: the LED colour and special-effect byte. */
  std::uint8_t red = 0, green = 0, blue = 0, special = 0;
  /** Milliseconds: flash and puff (the LED, and the puff's spray), spray. */
  std::int16_t time = 500;
  /** echo: the number. */
  std::uint32_t number = 0;
  /** puff: sent as the command that also asks for the tank identity (as the
   * facade sends a puff); false sends the plain spray-with-LED command. */
  bool asksTank = true;
};

/** The verbs, in the order above. */
NIMBARA_API const std::vector<std::string>& commandVerbs();

/** Whether `name` is a verb or one of the library's operation names
 * ("doLightLed", ...). */
NIMBARA_API bool isCommandName(const std::string& name);

/** Makes a command from a verb or an operation name and its arguments in order:
 * flash and puff take red, green, blue, then optionally special and time;
 * spray takes time; echo takes number; state and tank take nothing. An
 * operation name takes the operation's own arguments, all of them, in the
 * library's order (doLightLed: red, green, blue, special, time). Throws
 * std::invalid_argument with a one-line message for an unknown name, a wrong
 * count or a value out of its range. */
NIMBARA_API Command makeCommand(const std::string& name, const std::vector<long long>& arguments);

/** The library function that sends the command: "doLightLed",
 * "doSprayWithLightLedGetTankId", ...; "createSprayProtocol" for spray, which
 * no device operation sends. */
NIMBARA_API std::string operationName(const Command& command);

/** Milliseconds the accessory sprays: a puff's time clamped to 100..1000, a
 * spray's time as sent, 0 for commands that do not spray. */
NIMBARA_API int sprayMilliseconds(const Command& command);

/** The time field that goes out in the frame: a puff's is clamped. */
NIMBARA_API std::int16_t sentTime(const Command& command);

/** Interleaved stereo frames of the transmission. */
NIMBARA_API std::uint32_t commandFrames(const Command& command);

/** The exact samples the command's operation hands the output, interleaved
 * stereo, whole buffers of 735 frames: what `nimbara render` writes. Needs no
 * audio device and plays nothing. */
NIMBARA_API std::vector<std::int16_t> renderCommand(const Command& command);

/** Sends the command on the current backend and blocks until it has played:
 * the device operation's status (0, or a negative platform status). No
 * presence check: that is the controller's business. */
NIMBARA_API std::int32_t sendCommand(const Command& command);

/** The verb of an opcode with a parameter of `parameterBits` bits, or
 * "unknown" when no command has that layout; *asksTank tells a puff that also
 * asks for the tank identity from one that does not. */
NIMBARA_API const char* verbOfOpcode(unsigned opcode, unsigned parameterBits, bool* asksTank);

}  // namespace nimbara
#endif

#endif
