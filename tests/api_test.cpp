#include <nimbara/api/NimbaraSDK.h>
#include <nimbara/device/operations.h>
#include <nimbara/log.h>
#include <nimbara/signal/signal_units.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/faulty_backend.h"
#include "support/log_capture.h"
#include "support/signals.h"
#include "support/virtual_output.h"

namespace {

using nimbara::NimbaraException;
using nimbara::NimbaraProtocol;
using nimbara::NimbaraSDK;
using nimbara::TankId;
using nimbara::test::FaultyOutput;
using nimbara::test::ledCommandSignal;
using nimbara::test::LogCapture;
using nimbara::test::VirtualOutput;
using ::testing::ElementsAre;

// Lines of the caller's own steps: without the queue thread's lines and the
// polling, whose interleaving depends on timing.
std::vector<std::string> callerSteps(const std::vector<std::string>& lines) {
  std::vector<std::string> steps;
  for (const std::string& line : lines) {
    const bool audio = line.rfind("AQOutputCallback", 0) == 0 || line.rfind(" ", 0) == 0 ||
                       line == "#freeProtocolFrame" || line.rfind("wait... ", 0) == 0;
    if (!audio) steps.push_back(line);
  }
  return steps;
}

class ApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    nimbara::setRunLoopPause([this](double seconds) { pauses_.push_back(seconds); });
    initProtocolUnit();
    NimbaraSDK::nimbara().nimbaraProtocol()->setPreCheck(false);
  }
  void TearDown() override {
    nimbara::platform::waitUntilIdle();
    nimbara::setRunLoopPause({});
    nimbara::setReplyReceiver({});
  }

  FaultyOutput output_;
  std::vector<double> pauses_;
};

TEST_F(ApiTest, APuffRunsEveryStepInOrder) {
  LogCapture log;
  NimbaraSDK::nimbara().puffAndFlashLedWithRed(10, 20, 30, 1, 500);
  nimbara::platform::waitUntilIdle();
  auto steps = callerSteps(log.take());
  ASSERT_EQ(steps.size(), 13u);
  for (std::size_t i : {7u, 8u}) steps[i] = steps[i].substr(0, steps[i].find(" = "));  // addresses
  EXPECT_THAT(
      steps,
      ElementsAre("#input RGB=(10, 20, 30), special=1, time=500",
                  "checkDevice() -> Judge HeadsetPlugged.", "doSprayWithLightLedGetTankId start.",
                  "createSprayWithLightLedGetTankIdProtocol", "build protocol.",
                  "build protocol -> finished.", "#executeFunction 35280", "aqc->protocolFrame add",
                  "aqc->protocolFrame->protocol add", "#sampleLen=17640", "#play wait before.",
                  "#play wait after.", "doSprayWithLightLedGetTankId end. ret=0"));
  EXPECT_THAT(pauses_, ElementsAre(0.05, 0.05));
  EXPECT_EQ(output_->enqueuedSamples(), ledCommandSignal(5, 10, 20, 30, 1, 500, 17640));
}

TEST_F(ApiTest, WithoutADeviceRequestsThrowAndQueriesAnswer) {
  output_->setRoute("Speaker");
  NimbaraSDK& sdk = NimbaraSDK::nimbara();
  LogCapture log;
  try {
    sdk.flashLedWithRed(255, 0, 128, 1, -1);
    FAIL() << "no exception";
  } catch (const NimbaraException& e) {
    EXPECT_EQ(e.errorCode(), 1);
    EXPECT_EQ(e.name(), "NimbaraException");
    EXPECT_STREQ(e.what(), "errorCode=1, No device.");
    EXPECT_TRUE(e.userInfo().empty());
  }
  EXPECT_THAT(pauses_, ElementsAre(0.05));  // the second pause never came
  EXPECT_THAT(log.take(), ElementsAre("#input RGB=(255, 0, 128), special=1, time=-1",
                                      "checkDevice() -> Judge HeadsetPlugged."));
  EXPECT_THROW(sdk.puffAndFlashLedWithRed(1, 2, 3, 4, 5), NimbaraException);
  EXPECT_THROW(sdk.getTankId(), NimbaraException);
  EXPECT_THROW(sdk.echo(7), NimbaraException);
  EXPECT_EQ(sdk.checkDetailedDeviceState(), 1u);
  EXPECT_FALSE(sdk.checkDeviceState());
  EXPECT_TRUE(output_->enqueuedSamples().empty());

  const nimbara::Options skip{{"SKIP_PRECHECK", "YES"}};
  sdk.nimbaraProtocol()->initialize(&skip);
  EXPECT_EQ(sdk.checkDetailedDeviceState(), 0u);
  EXPECT_TRUE(sdk.checkDeviceState());
  EXPECT_EQ(sdk.echo(99), 0u);
  EXPECT_EQ(sdk.getTankId()->description(),
            "date=13/11/15, scentId=0, serialId=0, reserve1=0, reserve2=0");
  sdk.nimbaraProtocol()->initialize(nullptr);
  EXPECT_TRUE(sdk.checkDeviceState());  // no options: unchanged
  const nimbara::Options other{{"VOLUME", "1"}};
  sdk.nimbaraProtocol()->initialize(&other);
  EXPECT_TRUE(sdk.checkDeviceState());
  const nimbara::Options check{{"SKIP_PRECHECK", "NO"}};
  sdk.nimbaraProtocol()->initialize(&check);
  EXPECT_FALSE(sdk.checkDeviceState());
}

TEST_F(ApiTest, TheRouteDecidesPresence) {
  NimbaraSDK& sdk = NimbaraSDK::nimbara();
  // A sound card's sink names its active port after its description.
  for (const char* present : {"HeadsetInOut", "Headphone", "Headphones (USB)", "xHeadphone",
                              "Built-in Audio Analog Stereo: Headphones"}) {
    output_->setRoute(present);
    EXPECT_TRUE(sdk.checkDeviceState()) << present;
  }
  for (const char* absent :
       {"Speaker", "headphones", "", "HeadsetIn", "Built-in Audio Analog Stereo: Speakers",
        "Built-in Audio Analog Stereo: headphones"}) {
    output_->setRoute(absent);
    EXPECT_FALSE(sdk.checkDeviceState()) << absent;
  }
  output_->setRoute("Headphones");
  output_.faults().failCall(nimbara::test::Call::RouteQuery, -5, 0);
  EXPECT_FALSE(sdk.checkDeviceState());
}

TEST_F(ApiTest, CatchExceptionTurnsExceptionsIntoErrors) {
  // A block that raises nothing leaves an earlier error where it was.
  const auto earlier = std::make_shared<nimbara::Error>(nimbara::Error{"Earlier", 5, {}});
  std::shared_ptr<nimbara::Error> error = earlier;
  EXPECT_TRUE(NimbaraSDK::catchException([] {}, &error));
  EXPECT_EQ(error, earlier);
  EXPECT_EQ(error->domain, "Earlier");
  error = nullptr;
  EXPECT_TRUE(NimbaraSDK::catchException([] {}, &error));
  EXPECT_EQ(error, nullptr);

  EXPECT_FALSE(NimbaraSDK::catchException(
      [] { throw NimbaraProtocol().createNimbaraException(1, "No device."); }, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, "NimbaraException");
  EXPECT_EQ(error->code, 0);
  EXPECT_TRUE(error->userInfo.empty());

  EXPECT_FALSE(NimbaraSDK::catchException(
      [] {
        throw nimbara::Exception("Other", "why", {{"key", "value"}});
      },
      &error));
  EXPECT_EQ(error->domain, "Other");
  EXPECT_EQ(error->userInfo, (nimbara::UserInfo{{"key", "value"}}));

  EXPECT_FALSE(NimbaraSDK::catchException([] { throw std::runtime_error("x"); }, &error));
  EXPECT_EQ(error->domain, "std::runtime_error");
  EXPECT_FALSE(NimbaraSDK::catchException([] { throw std::runtime_error("x"); }, nullptr));
  EXPECT_THROW(NimbaraSDK::catchException([] { throw 42; }, &error), int);

  NimbaraException negative = NimbaraProtocol().createNimbaraException(-7, "r");
  EXPECT_EQ(negative.errorCode(), -7);
  EXPECT_EQ(negative.reason(), "errorCode=-7, r");
}

TEST_F(ApiTest, SprayTimeIsClampedAndLedTimeIsNot) {
  struct Case {
    bool spray;
    std::int16_t time;
    int sent;
  };
  const Case cases[] = {{true, 5000, 1000}, {true, 50, 100},     {true, -1, 100}, {true, 100, 100},
                        {true, 1000, 1000}, {false, 5000, 5000}, {false, -1, -1}};
  for (const Case& c : cases) {
    output_->clearRecordings();
    const int32_t status =
        c.spray ? doSprayWithLightLed(1, 2, 3, 4, c.time) : doLightLed(1, 2, 3, 4, c.time);
    EXPECT_EQ(status, 0);
    nimbara::platform::waitUntilIdle();
    EXPECT_EQ(output_->enqueuedSamples(),
              ledCommandSignal(c.spray ? 2 : 4, 1, 2, 3, 4, c.sent, 17640))
        << c.time;
  }
}

TEST_F(ApiTest, OperationsUseTheirFixedLengthsAndNeverSeeAReply) {
  LogCapture log;
  auto tankId = std::make_shared<TankId>();
  tankId->setYear(20);
  std::uint32_t echoed = 77;
  EXPECT_EQ(doAquireDeviceState(), 0);
  EXPECT_EQ(doGetTankId(tankId), 0);
  EXPECT_EQ(doEcho(5, &echoed), 0);
  nimbara::platform::waitUntilIdle();
  EXPECT_EQ(tankId->year(), 20);
  EXPECT_EQ(echoed, 77u);
  const auto steps = callerSteps(log.take());
  EXPECT_THAT(steps, ::testing::Contains("doAquireDeviceState end. ret=0"));
  EXPECT_THAT(steps, ::testing::Contains("doGetTankId end. ret=0"));
  EXPECT_THAT(steps, ::testing::Contains("doEcho end. ret=0"));
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "#executeFunction 17640"), 2);
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "#executeFunction 35280"), 1);
}

// A receiver that answers the operations expecting `code` with fixed bytes.
void replyWith(std::uint32_t code, std::vector<std::uint8_t> bytes) {
  nimbara::setReplyReceiver([code, bytes](std::uint32_t expected, ResponseRecord& record) {
    if (expected != code) return;
    record.replyPresent = 1;
    record.replyData = static_cast<std::uint8_t*>(std::malloc(bytes.size()));
    std::memcpy(record.replyData, bytes.data(), bytes.size());
  });
}

TEST_F(ApiTest, RepliesAreReadWhenAReceiverFillsTheRecord) {
  LogCapture log;
  replyWith(NIMBARA_REPLY_STATUS, {0x12});
  EXPECT_EQ(doLightLed(1, 2, 3, 4, 5), 18);
  EXPECT_THAT(callerSteps(log.take()), ::testing::Contains("#rtnParam->status=12"));

  replyWith(NIMBARA_REPLY_TANK_ID,
            {0x05, 0x0E, 0x0B, 0x0F, 0x34, 0x12, 0x78, 0x56, 0x02, 0xFF, 0xCD, 0xAB});
  auto tankId = std::make_shared<TankId>();
  EXPECT_EQ(doSprayWithLightLedGetTankId(1, 2, 3, 4, 500, tankId), 5);
  EXPECT_EQ(tankId->description(),
            "date=14/11/15, scentId=4660, serialId=22136, reserve1=2, reserve2=43981");
  EXPECT_THAT(callerSteps(log.take()),
              ::testing::IsSupersetOf(
                  {"#TankId=" + tankId->description(), std::string("#rtnParam->status=5")}));

  replyWith(NIMBARA_REPLY_ECHO, {0x78, 0x56, 0x34, 0x12});
  std::uint32_t echoed = 0;
  EXPECT_EQ(doEcho(1, &echoed), 0);
  EXPECT_EQ(echoed, 0x12345678u);
  EXPECT_THAT(callerSteps(log.take()), ::testing::Contains("#   return Number=305419896"));

  // The controller answers with its fixed identity whatever the device said.
  replyWith(NIMBARA_REPLY_TANK_ID,
            {0x05, 0x0E, 0x0B, 0x0F, 0x34, 0x12, 0x78, 0x56, 0x02, 0xFF, 0xCD, 0xAB});
  auto fixed =
      NimbaraSDK::nimbara().nimbaraProtocol()->puffAndFlashLedWithRedAndGetTankId(1, 2, 3, 4, 5);
  EXPECT_EQ(fixed->description(), "date=13/11/15, scentId=0, serialId=0, reserve1=0, reserve2=0");

  nimbara::setReplyReceiver([](std::uint32_t, ResponseRecord& record) { record.replyPresent = 1; });
  EXPECT_EQ(doAquireDeviceState(), 0);  // present but empty: nothing read
}

TEST_F(ApiTest, TheSingletonIsMadeOnceAndSetsTheRateEveryTime) {
  NimbaraSDK& first = NimbaraSDK::nimbara();
  const auto before = output_->session();
  NimbaraSDK& second = NimbaraSDK::nimbara();
  NimbaraSDK other;
  other.initialize();
  EXPECT_EQ(&first, &second);
  const auto after = output_->session();
  EXPECT_EQ(after.preferredRateCalls, before.preferredRateCalls + 2);
  EXPECT_EQ(after.preferredRate, 44100.0);
  // A facade made by other means forwards to the singleton's controller.
  output_->setRoute("Speaker");
  EXPECT_EQ(other.checkDetailedDeviceState(), 1u);
}

TEST(BoolValue, ReadsTextLikeTheSkipOption) {
  for (const char* yes : {"YES", "yes", "true", "T", "1", "  7", "+1", "-0009", "001"}) {
    EXPECT_TRUE(nimbara::boolValue(yes)) << yes;
  }
  for (const char* no : {"NO", "false", "0", "", "  ", "000", "x1", "-"}) {
    EXPECT_FALSE(nimbara::boolValue(no)) << no;
  }
}

TEST(Version, ExportsTheWhatStringAndNumber) {
  EXPECT_EQ(sizeof NimbaraSDKVersionString, 46u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(NimbaraSDKVersionString)),
            "@(#)PROGRAM:NimbaraSDK  PROJECT:NimbaraSDK-1\n");
  EXPECT_EQ(NimbaraSDKVersionNumber, 1.0);
}

}  // namespace
