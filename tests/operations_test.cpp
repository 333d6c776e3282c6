// The device operations' and the object interface's smaller promises: every
// operation's start and end lines, the untouched result record, failures that
// raise nothing, the microphone presence test, the controller's release of the
// fixed units, a facade before the singleton, and hooks that print nothing.
#include <nimbara/api/NimbaraProtocol.h>
#include <nimbara/api/NimbaraSDK.h>
#include <nimbara/device/operations.h>
#include <nimbara/device/reply_bits.h>
#include <nimbara/device/route.h>
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/signal/playback.h>
#include <nimbara/tank/TankId.h>
#include <nimbara/tank/base64.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "signal/fixed_units.h"
#include "support/faulty_backend.h"
#include "support/log_capture.h"
#include "support/virtual_output.h"

namespace {

using nimbara::test::Call;
using nimbara::test::FaultyOutput;
using nimbara::test::LogCapture;
using ::testing::Contains;

TEST(Operations, EachLogsItsStartAndEndAroundTheTransmission) {
  FaultyOutput output;
  auto tank = std::make_shared<nimbara::TankId>();
  std::uint32_t echoed = 7;
  const std::vector<std::pair<std::string, std::function<int32_t()>>> operations = {
      {"doAquireDeviceState", [] { return doAquireDeviceState(); }},
      {"doGetTankId", [&] { return doGetTankId(tank); }},
      {"doEcho", [&] { return doEcho(5, &echoed); }},
      {"doLightLed", [] { return doLightLed(1, 2, 3, 4, 5); }},
      {"doSprayWithLightLed", [] { return doSprayWithLightLed(1, 2, 3, 4, 500); }},
      {"doSprayWithLightLedGetTankId",
       [&] { return doSprayWithLightLedGetTankId(1, 2, 3, 4, 500, tank); }},
  };
  for (const auto& [name, run] : operations) {
    for (const std::int32_t failure : {0, -31}) {
      output.faults().failCall(Call::NewOutput, failure, 0);
      LogCapture log;
      EXPECT_EQ(run(), failure) << name;
      nimbara::platform::waitUntilIdle();
      const auto lines = log.take();
      ASSERT_FALSE(lines.empty());
      EXPECT_EQ(lines.front(), name + " start.");
      EXPECT_THAT(lines, Contains(name + " end. ret=" + std::to_string(failure)));
    }
  }
  EXPECT_EQ(echoed, 7u);  // no reply: the result cell keeps what it held
}

TEST(Operations, TheEngineLeavesThePassedRecordAsItWas) {
  FaultyOutput output;
  ResponseRecord record;
  std::memset(&record, 0, sizeof record);
  ResponseRecord before = record;
  ASSERT_EQ(executeFunction(createEchoProtocol(3), NIMBARA_REPLY_ECHO, 35280, &record), 0);
  nimbara::platform::waitUntilIdle();
  EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
}

TEST(Operations, PlayFinishCountNamesTheFrameAndReleasesTheContext) {
  // A context not made by executeFunction: the third count releases it.
  auto* context = static_cast<PlaybackContext*>(std::calloc(1, sizeof(PlaybackContext)));
  LogCapture log;
  for (int i = 0; i < 3; ++i) incrementPlayFinishCount(context);
  EXPECT_EQ(log.take(), (std::vector<std::string>{" dispose return[1] aqc->disposedCount=1",
                                                  " dispose return[1] aqc->disposedCount=2",
                                                  " dispose return[1] aqc->disposedCount=3",
                                                  " -> freeProtocolFrame(aqc->protocolFrame);"}));
}

TEST(Controller, AFailingOutputRaisesNothingAndTheMicrophoneTestFindsNoDevice) {
  FaultyOutput output;
  nimbara::setRunLoopPause([](double) {});
  auto protocol = std::make_shared<nimbara::NimbaraProtocol>();
  output.faults().failCall(Call::NewOutput, -9, 0);
  EXPECT_NO_THROW(protocol->flashLedWithRed(1, 2, 3, 4, 500));
  EXPECT_NO_THROW(protocol->puffAndFlashLedWithRed(1, 2, 3, 4, 500));
  output.faults().failCall(Call::NewOutput, 0);

  // Headphones on the route, and still the microphone test says no.
  output->setRoute("Headphones");
  EXPECT_TRUE(isHeadsetPluggedIn());
  EXPECT_FALSE(checkDeviceByMicWaveForInternal());
  try {
    protocol->preCheckDeviceByMicWave();
    ADD_FAILURE() << "no exception";
  } catch (const nimbara::NimbaraException& e) {
    EXPECT_EQ(e.errorCode(), 1);
  }
  protocol->setPreCheck(true);
  EXPECT_NO_THROW(protocol->preCheckDeviceByMicWave());
  nimbara::setRunLoopPause({});
}

TEST(Controller, ItsDestructionReleasesTheFixedUnits) {
  {
    auto protocol = std::make_shared<nimbara::NimbaraProtocol>();
    initProtocolUnit();
    ASSERT_NE(nimbara::detail::wakeUp.load(), nullptr);
  }
  EXPECT_EQ(nimbara::detail::wakeUp.load(), nullptr);
  EXPECT_EQ(nimbara::detail::waveNum00.load(), nullptr);
  FrameNode* frame = createAcquireProtocol();  // built again on demand
  EXPECT_NE(nimbara::detail::wakeUp.load(), nullptr);
  freeProtocolFrame(frame);
}

TEST(Facade, DetailedStatePausesTwiceEvenWithoutADevice) {
  nimbara::test::VirtualOutput output;
  output->setRoute("Speaker");
  std::vector<double> pauses;
  nimbara::setRunLoopPause([&](double seconds) { pauses.push_back(seconds); });
  nimbara::NimbaraSDK& sdk = nimbara::NimbaraSDK::nimbara();
  sdk.nimbaraProtocol()->setPreCheck(false);
  EXPECT_EQ(sdk.checkDetailedDeviceState(), 1u);
  EXPECT_EQ(pauses, (std::vector<double>{0.05, 0.05}));
  nimbara::setRunLoopPause({});
}

// Before the singleton exists, a facade made otherwise does nothing. A fresh
// process is needed: the test runs itself again with nothing made yet.
TEST(Facade, BeforeTheSingletonRequestsDoNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        LogCapture log;
        nimbara::NimbaraSDK facade;
        const bool nothing = !facade.checkDeviceState() && facade.checkDetailedDeviceState() == 0 &&
                             facade.getTankId() == nullptr && facade.echo(9) == 0;
        nimbara::setRunLoopPause([](double) {});
        facade.flashLedWithRed(1, 2, 3, 4, 5);  // its own line only: nothing is sent
        const bool onlyInput =
            log.take() == std::vector<std::string>{"#input RGB=(1, 2, 3), special=4, time=5"};
        std::exit(nothing && onlyInput ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(Hooks, DumpHooksPrintNothing) {
  LogCapture log;
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  FrameNode* frame = createAcquireProtocol();
  log.take();
  dumpBit(frame);
  dumpProtocolFrame(frame);
  dumpBitForUInt(0xFFFFFFFF);
  freeProtocolFrame(frame);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(log.take(), (std::vector<std::string>{"#freeProtocolFrame", " name=DXX -> free"}));
}

TEST(Frames, SprayLogsItsTimeAndTankTextEndsInPadding) {
  initProtocolUnit();
  LogCapture log;
  FrameNode* frame = createSprayProtocol(500);
  EXPECT_EQ(log.take().front(), "createSprayProtocol time[ms]=500");
  freeProtocolFrame(frame);

  nimbara::TankId tank;
  tank.setYear(13);
  tank.setMonth(11);
  tank.setDay(15);
  const std::string text = nimbara::base64EncodedString(tank.encode());
  EXPECT_EQ(text.size(), 12u);
  EXPECT_EQ(text.substr(10), "==");
  EXPECT_EQ(text.find('\r'), std::string::npos);
}

}  // namespace
