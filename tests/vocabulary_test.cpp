#include <nimbara/api/vocabulary.h>
#include <nimbara/log.h>
#include <nimbara/receiver/receiver.h>

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using nimbara::Command;
using nimbara::commandFields;
using nimbara::commandFromFields;
using nimbara::commandFromWords;

std::string failure(const std::vector<std::string>& words) {
  try {
    commandFromWords(words);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no error";
}

std::string fieldFailure(const std::string& json) {
  try {
    commandFromFields(json);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no error";
}

TEST(Vocabulary, EachRowOfTheTableNamesItsOpcodeOperationAndLength) {
  nimbara::setLogSink({});
  for (const auto& form : nimbara::commandForms()) {
    bool asksTank = !form.asksTank;
    EXPECT_STREQ(nimbara::verbOfOpcode(form.opcode, form.parameterBits, &asksTank), form.verb);
    EXPECT_EQ(asksTank, form.asksTank) << form.operation;
    // The operation's name makes a command of this row, as long as it renders.
    const Command command =
        nimbara::makeCommand(form.operation, std::vector<long long>(form.layout.size(), 1));
    EXPECT_EQ(&nimbara::commandForm(command), &form) << form.operation;
    EXPECT_EQ(nimbara::renderCommand(command).size() / 2, form.frames) << form.operation;
  }
  EXPECT_STREQ(nimbara::verbOfOpcode(2, 32, nullptr), "unknown");
  EXPECT_EQ(nimbara::commandVerbs(),
            (std::vector<std::string>{"flash", "puff", "spray", "state", "tank", "echo"}));
}

TEST(Vocabulary, EveryColourSyntaxMakesTheSameCommand) {
  const std::string orange = commandFields(commandFromWords({"flash", "255", "165", "0"}));
  for (const auto& words : std::vector<std::vector<std::string>>{
           {"flash", "#ffa500"}, {"flash", "FFA500"}, {"flash", "orange"}, {"flash", "Orange"}}) {
    EXPECT_EQ(commandFields(commandFromWords(words)), orange) << words[1];
  }
  EXPECT_EQ(orange, R"({"command":"flash","red":255,"green":165,"blue":0,"special":0,"time":500,)"
                    R"("operation":"doLightLed"})");
}

TEST(Vocabulary, WordsWithOptionsAndTheOperationNames) {
  EXPECT_EQ(commandFields(commandFromWords({"puff", "orange", "--time", "5000", "--special=3"})),
            R"({"command":"puff","red":255,"green":165,"blue":0,"special":3,"time":5000,)"
            R"("asks_tank":true,"sprays":1000,"operation":"doSprayWithLightLedGetTankId"})");
  const Command plain = commandFromWords({"puff", "red", "--no-tank"});
  EXPECT_FALSE(plain.asksTank);
  EXPECT_EQ(nimbara::operationName(plain), "doSprayWithLightLed");
  EXPECT_EQ(commandFields(commandFromWords({"state"})),
            R"({"command":"state","operation":"doAquireDeviceState"})");
  EXPECT_EQ(commandFields(commandFromWords({"spray", "-20"})),
            R"({"command":"spray","time":-20,"sprays":-20,"operation":"createSprayProtocol"})");
  EXPECT_EQ(commandFields(commandFromWords({"doSprayWithLightLed", "1", "2", "3", "4", "50"})),
            commandFields(commandFromWords(
                {"puff", "1", "2", "3", "--special", "4", "--time", "50", "--no-tank"})));
  EXPECT_EQ(nimbara::renderCommand(commandFromWords({"echo", "7"})),
            nimbara::renderCommand(nimbara::makeCommand("doEcho", {7})));
}

TEST(Vocabulary, BadWordsAreNamedInOneLine) {
  EXPECT_EQ(failure({"flash", "300", "0", "0"}), "red must be from 0 to 255, not \"300\"");
  EXPECT_EQ(failure({"puff", "#12345"}),
            "\"#12345\" is not a colour (R G B, #rrggbb, rrggbb or a CSS name)");
  EXPECT_EQ(failure({"flash", "1", "2"}),
            "a colour is R G B or one word (#rrggbb, rrggbb or a CSS name), not 2 words");
  EXPECT_EQ(failure({"spray"}), "spray takes one time in milliseconds, not 0 words");
  EXPECT_EQ(failure({"state", "now"}), "state takes nothing, not 1 words");
  EXPECT_EQ(failure({"echo", "x"}), "number must be a decimal number, not \"x\"");
  EXPECT_EQ(failure({"spray", "5", "--time", "3"}),
            "spray takes no --special, --time or --no-tank");
  EXPECT_EQ(failure({"flash", "red", "--no-tank"}), "only puff takes --no-tank");
  EXPECT_EQ(failure({"puf", "red"}), "unknown command \"puf\" (did you mean puff?)");
  EXPECT_EQ(failure({"puff", "red", "--time"}), "--time needs a value");
  EXPECT_EQ(failure({"puff", "red", "--loud"}), "unknown option \"--loud\"");
  EXPECT_EQ(failure({"doLightLed", "1", "2", "3"}), "doLightLed takes 5 arguments, not 3");
  EXPECT_EQ(failure({}), "no command: give a verb (flash, puff, ...)");
}

TEST(Vocabulary, FieldMapsRoundTripAndRefuseWhatIsWrong) {
  for (const auto& words :
       std::vector<std::vector<std::string>>{{"flash", "1", "2", "3", "--time", "-7"},
                                             {"puff", "teal", "--time", "20", "--no-tank"},
                                             {"puff", "teal"},
                                             {"spray", "300"},
                                             {"state"},
                                             {"tank"},
                                             {"echo", "4294967295"}}) {
    const Command command = commandFromWords(words);
    const Command back = commandFromFields(commandFields(command));
    EXPECT_EQ(commandFields(back), commandFields(command)) << words[0];
    EXPECT_EQ(nimbara::renderCommand(back), nimbara::renderCommand(command)) << words[0];
  }
  EXPECT_EQ(commandFromFields(R"({"command":"puff","red":1,"green":2,"blue":3})").time, 500);
  EXPECT_EQ(fieldFailure("[1]"), "a command's fields must be a JSON object");
  EXPECT_EQ(fieldFailure(R"({"command":"sneeze"})"), "unknown command \"sneeze\"");
  EXPECT_EQ(fieldFailure(R"({"command":"state","red":1})"), "state carries no red");
  EXPECT_EQ(fieldFailure(R"({"command":"flash","asks_tank":false,"red":1,"green":1,"blue":1})"),
            "flash carries no asks_tank");
  EXPECT_EQ(fieldFailure(R"({"command":"flash","red":"1","green":1,"blue":1})"),
            "red must be a whole number, not \"1\"");
  EXPECT_EQ(fieldFailure(R"({"command":"flash","red":256,"green":1,"blue":1})"),
            "red must be from 0 to 255, not 256");
  EXPECT_EQ(fieldFailure(R"({"command":"flash","green":1,"blue":1})"), "flash needs red");
  EXPECT_EQ(fieldFailure(R"({"command":"echo","number":18446744073709551615})"),
            "number is out of range: 18446744073709551615");
  EXPECT_EQ(fieldFailure(R"({"command":"echo","number":1,"colour":2})"),
            "\"colour\" is not a command's field");
  EXPECT_EQ(fieldFailure(R"({"command":"puff","red":1,"green":1,"blue":1,"sprays":5000})"),
            "sprays 5000 does not match the command");
}

TEST(Vocabulary, ReceivedTransmissionsCarryTheSameFields) {
  nimbara::setLogSink({});
  const auto samples =
      nimbara::renderCommand(commandFromWords({"puff", "red", "--time", "5000", "--no-tank"}));
  nimbara::Receiver receiver(44100, 2);
  receiver.push(samples.data(), samples.size() / 2);
  receiver.finish();
  const auto heard = receiver.take();
  ASSERT_EQ(heard.size(), 1u);
  const std::string fields = nimbara::transmissionFields(heard[0]);
  EXPECT_EQ(fields.substr(0, fields.find(",\"start\"")), R"({"command":"puff","opcode":2)");
  const std::size_t damaged = fields.find(",\"damaged\"");
  EXPECT_EQ(fields.substr(damaged, fields.find(",\"confidence\"") - damaged),
            R"(,"damaged":false,"red":255,"green":0,"blue":0,"special":0,"time":1000,)"
            R"("asks_tank":false)");
  EXPECT_EQ(nimbara::accessoryAction(heard[0], false),
            "sprays for 1000 ms, LED rgb(255, 0, 0) special 0");
  EXPECT_EQ(nimbara::describeTransmissionCommand(heard[0]),
            "puff rgb(255, 0, 0) special 0 time 1000 ms without asking for the tank");
}

}  // namespace
