#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/receiver/receiver.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/virtual_output.h"

namespace {

using nimbara::Command;
using nimbara::makeCommand;
using nimbara::test::VirtualOutput;

// What sending the command hands the output, recorded on the virtual device.
std::vector<std::int16_t> sent(const Command& command, std::int32_t* status) {
  VirtualOutput output;
  *status = nimbara::sendCommand(command);
  nimbara::platform::waitUntilIdle();
  return output->enqueuedSamples();
}

TEST(Command, RenderEqualsWhatSendingHandsTheOutputForEveryVerb) {
  nimbara::setLogSink({});
  const std::vector<std::pair<std::string, std::vector<long long>>> cases = {
      {"flash", {255, 0, 128}},
      {"flash", {1, 2, 3, 4, -1}},
      {"puff", {9, 8, 7, 6, 5000}},
      {"puff", {9, 8, 7, 6, -20}},
      {"doSprayWithLightLed", {1, 2, 3, 4, 700}},
      {"spray", {500}},
      {"state", {}},
      {"tank", {}},
      {"echo", {4294967295LL}},
      {"doLightLed", {255, 0, 128, 1, 500}},
  };
  for (const auto& [name, arguments] : cases) {
    const Command command = makeCommand(name, arguments);
    std::int32_t status = -1;
    const auto played = sent(command, &status);
    EXPECT_EQ(status, 0) << name;
    const auto rendered = nimbara::renderCommand(command);
    EXPECT_EQ(rendered.size(), 2u * nimbara::commandFrames(command)) << name;
    EXPECT_EQ(rendered, played) << name;

    // The receiver names it with the same verb and arguments.
    nimbara::Receiver receiver(44100, 2);
    receiver.push(rendered.data(), rendered.size() / 2);
    receiver.finish();
    const auto heard = receiver.take();
    ASSERT_EQ(heard.size(), 1u) << name;
    EXPECT_FALSE(heard[0].damaged) << name;
    EXPECT_EQ(heard[0].command, command.verb) << name;
    EXPECT_EQ(heard[0].time,
              command.verb == "state" || command.verb == "tank" || command.verb == "echo"
                  ? 0
                  : nimbara::sentTime(command))
        << name;
    if (command.verb == "puff") {
      EXPECT_EQ(heard[0].asksTank, command.asksTank) << name;
    }
  }
}

TEST(Command, NamesArgumentsAndClamp) {
  const Command puff = makeCommand("puff", {1, 2, 3, 0, 5000});
  EXPECT_EQ(nimbara::operationName(puff), "doSprayWithLightLedGetTankId");
  EXPECT_EQ(nimbara::sentTime(puff), 1000);
  EXPECT_EQ(nimbara::sprayMilliseconds(makeCommand("puff", {1, 2, 3, 0, -1})), 100);
  EXPECT_EQ(nimbara::sprayMilliseconds(makeCommand("flash", {1, 2, 3, 0, 5000})), 0);
  EXPECT_EQ(nimbara::sentTime(makeCommand("flash", {1, 2, 3, 0, 5000})), 5000);
  EXPECT_EQ(makeCommand("flash", {1, 2, 3}).time, 500);
  EXPECT_EQ(nimbara::operationName(makeCommand("doSprayWithLightLed", {1, 2, 3, 0, 9})),
            "doSprayWithLightLed");
  EXPECT_EQ(nimbara::commandFrames(makeCommand("tank", {})), 8820u);

  const auto message = [](const std::string& name, const std::vector<long long>& arguments) {
    try {
      makeCommand(name, arguments);
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(message("flash", {256, 0, 0}), "red must be from 0 to 255, not 256");
  EXPECT_EQ(message("spray", {40000}), "time must be from -32768 to 32767, not 40000");
  EXPECT_EQ(message("echo", {-1}), "number must be from 0 to 4294967295, not -1");
  EXPECT_EQ(message("flash", {1, 2}), "flash takes 3 to 5 arguments, not 2");
  EXPECT_EQ(message("doLightLed", {1, 2, 3}), "doLightLed takes 5 arguments, not 3");
  EXPECT_EQ(message("lightLed", {}), "unknown command \"lightLed\"");
}

}  // namespace
