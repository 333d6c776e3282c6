/* The command vocabulary: one table of the accessory's commands, and the ways
 * into and out of a command that every front end shares (the tool, Python,
 * JavaScript): the words as typed, the colours, and one field map.
 *
 * The field map is a flat JSON object. Its names and their meanings:
 *   command    the verb: "flash", "puff", "spray", "state", "tank", "echo"
 *              ("unknown" for a received layout no command has)
 *   red, green, blue, special
 *              flash and puff: the LED colour and special-effect byte, 0..255
 *   time       flash, puff and spray: the time in milliseconds as asked for,
 *              -32768..32767 (for a received transmission: as the frame
 *              carried it, so a puff's is already clamped)
 *   number     echo: the number, 0..4294967295
 *   asks_tank  puff: whether the puff also asks for the tank identity
 *   sprays     commands only, puff and spray: the milliseconds the accessory
 *              sprays (a puff's time clamped to 100..1000)
 *   operation  commands only: the library function that sends it
 *   opcode, start, damaged, confidence, snr_db
 *              transmissions only: the received opcode, where the
 *              transmission began (seconds, to 0.1 ms), whether it is damaged,
 *              the receiver's confidence (0..1) and signal-to-noise ratio (dB)
 * A field the verb does not carry is left out. */
#ifndef NIMBARA_API_VOCABULARY_H
#define NIMBARA_API_VOCABULARY_H

#include <nimbara/api/command.h>
#include <nimbara/export.h>

#ifdef __cplusplus
#include <cstdint>
#include <string>
#include <vector>

struct FrameNode;

namespace nimbara {

struct Transmission;

/** A command's fields, as bits of CommandForm::fields. */
enum CommandField : unsigned {
  kFieldRed = 1u << 0,
  kFieldGreen = 1u << 1,
  kFieldBlue = 1u << 2,
  kFieldSpecial = 1u << 3,
  kFieldTime = 1u << 4,
  kFieldNumber = 1u << 5,
  kFieldAsksTank = 1u << 6,
};

/** What the controller answers for a command, since no reply is heard. */
enum class CommandAnswer { None, Tank, Echo };

/** One form of a command: a row of the table. A puff has two forms, with and
 * without the tank query. */
struct CommandForm {
  const char* verb;
  bool asksTank;
  /** The frame's opcode and the parameter's length in bits. */
  std::uint8_t opcode;
  unsigned parameterBits;
  /** The library function that sends it. */
  const char* operation;
  /** The operation's arguments in order (CommandField bits), and how many of
   * them the verb's words must give (the rest have defaults). */
  std::vector<CommandField> layout;
  std::size_t required;
  /** The fields the verb carries (CommandField bits). */
  unsigned fields;
  /** Interleaved stereo frames of the transmission. */
  std::uint32_t frames;
  /** Whether the time the frame carries is clamped to 100..1000 ms. */
  bool clampsTime;
  /** Whether the accessory sprays, and lights its LED, on hearing it. */
  bool sprays, lightsLed;
  CommandAnswer answer;
  /** The command's frame (freed with freeProtocolFrame). */
  FrameNode* (*frame)(const Command& command);
};

/** The table, one row per form, in the order of commandVerbs(). */
NIMBARA_API const std::vector<CommandForm>& commandForms();

/** The row of a command; std::invalid_argument for an unknown verb. */
NIMBARA_API const CommandForm& commandForm(const Command& command);

/** Whether a verb carries a field ("red", "time", "asks_tank", ...). */
NIMBARA_API bool verbCarries(const std::string& verb, const std::string& field);

/** A colour from the words of a command: three ("255 0 128"), or one
 * ("#ff0080", "ff0080", or a CSS name such as "orange"). */
struct Colour {
  std::uint8_t red = 0, green = 0, blue = 0;
};
NIMBARA_API Colour colourFromWords(const std::vector<std::string>& words);

/** A decimal integer word from low to high ("010" is ten). Throws
 * std::invalid_argument naming the word and what it should be. */
NIMBARA_API long long decimalWord(const std::string& name, const std::string& text, long long low,
                                  long long high);

/** The nearest of `choices` to `word` (at most two edits), for "did you mean
 * ...?"; empty if none is close. */
NIMBARA_API std::string nearestWord(const std::string& word,
                                    const std::vector<std::string>& choices);

/** A command from its words as the tool takes them: the verb, then its words
 * and its options (`puff orange --time 300`, `flash 255 0 0 --special 3`,
 * `puff red --no-tank`, `state`), or a library operation name and all its
 * numbers (`doLightLed 255 0 128 1 500`). Throws std::invalid_argument with a
 * one-line message naming what is wrong. */
NIMBARA_API Command commandFromWords(const std::vector<std::string>& words);

/** A command from its field map (see above; the derived `sprays` and
 * `operation` are checked against the command when given). Throws
 * std::invalid_argument for text that is not a JSON object, an unknown verb
 * or field, a field the verb does not carry, a wrong type or a value out of
 * range. */
NIMBARA_API Command commandFromFields(const std::string& json);

/** The field map of a command. */
NIMBARA_API std::string commandFields(const Command& command);

/** The field map of a received transmission. */
NIMBARA_API std::string transmissionFields(const Transmission& transmission);

/** One line for a command: "puff rgb(255, 165, 0) special 0 time 600 ms",
 * with the spray clamp spelled out when it applies. */
NIMBARA_API std::string describeCommand(const Command& command);

/** The verb and arguments of a transmission, as describeCommand words them. */
NIMBARA_API std::string describeTransmissionCommand(const Transmission& transmission);

/** What the accessory does on hearing a transmission; with `colourBlock`, the
 * LED's colour is drawn as a 24-bit terminal colour block. */
NIMBARA_API std::string accessoryAction(const Transmission& transmission, bool colourBlock);

}  // namespace nimbara
#endif

#endif
