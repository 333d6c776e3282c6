#include <nimbara/frame/commands.h>
#include <nimbara/frame/frame.h>
#include <nimbara/signal/signal_units.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "signal/fixed_units.h"
#include "support/expected_signal.h"
#include "support/log_capture.h"

namespace {

using nimbara::test::bitsOf;
using nimbara::test::LogCapture;
using nimbara::test::nodesOf;
using ::testing::ElementsAre;
namespace fixed = nimbara::detail;

struct FrameTest : ::testing::Test {
  void SetUp() override { initProtocolUnit(); }
};

// The payload of a frame (command, parameter and parity of the first
// repetition), after checking that both repetitions send the same units.
std::string payloadOf(FrameNode* frame) {
  auto nodes = nodesOf(frame);
  EXPECT_EQ(nodes.size(), 11u);
  if (nodes.size() != 11) return {};
  EXPECT_EQ(nodes[2]->protocol, nodes[7]->protocol);
  EXPECT_EQ(nodes[3]->protocol, nodes[8]->protocol);
  EXPECT_EQ(nodes[4]->protocol, nodes[9]->protocol);
  return bitsOf(nodes[2]->protocol) + bitsOf(nodes[3]->protocol) + bitsOf(nodes[4]->protocol);
}

TEST_F(FrameTest, ElevenNodesWithFixedUnitsAroundTheSharedPayload) {
  ProtocolUnit* command = create8bitProtocolUnit(1);
  FrameNode* frame = buildProtocol(command, fixed::data0x00);
  auto nodes = nodesOf(frame);
  ASSERT_EQ(nodes.size(), 11u);
  const std::vector<ProtocolUnit*> expectedUnits = {
      fixed::wakeUp,      fixed::noSound,     command,        fixed::data0x00,
      fixed::checkOneBit, fixed::stopBits,    fixed::noSound, command,
      fixed::data0x00,    fixed::checkOneBit, fixed::stopBits};
  const std::vector<int> expectedOwned = {1, 1, 1, 1, 1, 1, 1, 0, 0, 1, 1};
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    EXPECT_EQ(nodes[i]->protocol, expectedUnits[i]) << "node " << i + 1;
    EXPECT_EQ(nodes[i]->owned, expectedOwned[i]) << "node " << i + 1;
    EXPECT_EQ(nodes[i]->bitIndex, 0u);
    EXPECT_EQ(nodes[i]->sampleIndex, 0u);
  }
  EXPECT_EQ(nodes.back()->next, nullptr);
  freeProtocolFrame(frame);
}

TEST_F(FrameTest, ParityMakesTheOnesOfEachRepetitionEven) {
  struct Case {
    ProtocolUnit* command;
    ProtocolUnit* parameter;
    ProtocolUnit* parity;
  };
  const Case cases[] = {
      {create8bitProtocolUnit(0b00000001), fixed::data0x00, fixed::checkOneBit},
      {create8bitProtocolUnit(0b00000011), fixed::data0x00, fixed::checkZeroBit},
      {create8bitProtocolUnit(0xFF), create32bitProtocolUnit(1), fixed::checkOneBit},
      {create8bitProtocolUnit(0xFF), createLightLedParamProtocolUnit(255, 255, 255, 0, 0),
       fixed::checkZeroBit},
      {create8bitProtocolUnit(0), fixed::data0x00, fixed::checkZeroBit},
  };
  for (const Case& c : cases) {
    FrameNode* frame = buildProtocol(c.command, c.parameter);
    auto nodes = nodesOf(frame);
    ASSERT_EQ(nodes.size(), 11u);
    EXPECT_EQ(nodes[4]->protocol, c.parity);
    EXPECT_EQ(nodes[9]->protocol, c.parity);
    freeProtocolFrame(frame);
  }
}

TEST_F(FrameTest, ReleaseFreesOwnedUnitsOnceInSendingOrder) {
  LogCapture log;
  freeProtocolFrame(
      buildProtocol(create8bitProtocolUnit(2), createLightLedParamProtocolUnit(1, 2, 3, 4, 5)));
  freeProtocolFrame(buildProtocol(create8bitProtocolUnit(2), create16bitProtocolUnit(7)));
  freeProtocolFrame(buildProtocol(create8bitProtocolUnit(3), fixed::data0x00));
  freeProtocolFrame(nullptr);
  EXPECT_THAT(log.take(),
              ElementsAre("build protocol.", "build protocol -> finished.", "#freeProtocolFrame",
                          " name=DXX -> free", " name=LED -> free",  //
                          "build protocol.", "build protocol -> finished.", "#freeProtocolFrame",
                          " name=DXX -> free", " name=DXX -> free",  //
                          "build protocol.", "build protocol -> finished.", "#freeProtocolFrame",
                          " name=DXX -> free",  //
                          "#freeProtocolFrame"));
  // The fixed units outlive every frame.
  EXPECT_EQ(bitsOf(fixed::data0x00), "00000000");
  EXPECT_EQ(fixed::wakeUp.load()->length, 220);
}

TEST_F(FrameTest, CommandCatalogueOpcodesAndParameters) {
  struct Case {
    FrameNode* frame;
    std::string payload;  // command + parameter, parity appended by withParity
  };
  const Case cases[] = {
      {createAcquireProtocol(),
       "00000001"
       "00000000"},
      {createGetTankIdProtocol(),
       "00000011"
       "00000000"},
      {createEchoProtocol(1), "11111111" + std::string(31, '0') + "1"},
      {createEchoProtocol(0), "11111111" + std::string(32, '0')},
      {createSprayProtocol(500),
       "00000010"
       "0000000111110100"},
      {createSprayProtocol(-1), "00000010" + std::string(16, '1')},
      {createLightLedProtocol(255, 0, 0, 0, 1000),
       "00000100"
       "11111111" +
           std::string(24, '0') + "0000001111101000"},
      {createSprayWithLightLedProtocol(255, 0, 0, 0, 1000),
       "00000010"
       "11111111" +
           std::string(24, '0') + "0000001111101000"},
      {createSprayWithLightLedGetTankIdProtocol(1, 2, 3, 4, -5),
       "00000101"
       "00000001"
       "00000010"
       "00000011"
       "00000100"
       "1111111111111011"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(payloadOf(c.frame), nimbara::test::withParity(c.payload));
    freeProtocolFrame(c.frame);
  }
}

TEST_F(FrameTest, BuildersLogTheirLineAndTheFirstFrameBuildsTheFixedUnits) {
  clearProtocolUnit();
  LogCapture log;
  FrameNode* first = createSprayProtocol(-1);
  FrameNode* second = createEchoProtocol(7);
  FrameNode* third = createAcquireProtocol();
  EXPECT_THAT(log.take(),
              ElementsAre("createSprayProtocol time[ms]=-1", "waveNum0", "waveNum1",
                          "build protocol.", "build protocol -> finished.", "createEchoProtocol",
                          "build protocol.", "build protocol -> finished.", "createAcquireProtocol",
                          "build protocol.", "build protocol -> finished."));
  for (FrameNode* frame : {first, second, third}) freeProtocolFrame(frame);
  // Releasing an acquire frame frees its command only, never data0x00.
  EXPECT_THAT(log.take(),
              ElementsAre("#freeProtocolFrame", " name=DXX -> free", " name=DXX -> free",
                          "#freeProtocolFrame", " name=DXX -> free", " name=DXX -> free",
                          "#freeProtocolFrame", " name=DXX -> free"));
  const char* otherBuilders[] = {"createGetTankIdProtocol", "createLightLedProtocol",
                                 "createSprayWithLightLedProtocol",
                                 "createSprayWithLightLedGetTankIdProtocol"};
  FrameNode* frames[] = {createGetTankIdProtocol(), createLightLedProtocol(1, 2, 3, 4, 5),
                         createSprayWithLightLedProtocol(1, 2, 3, 4, 5),
                         createSprayWithLightLedGetTankIdProtocol(1, 2, 3, 4, 5)};
  auto lines = log.take();
  ASSERT_EQ(lines.size(), 12u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(lines[3 * i], otherBuilders[i]);
  for (FrameNode* frame : frames) freeProtocolFrame(frame);
}

}  // namespace
