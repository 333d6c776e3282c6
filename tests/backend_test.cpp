// The platform interface as a front end sees it: backends by name, the
// operations a backend lacks, the outputs of the simulated backends, and a
// run-dry reported through the playback engine.
#include <nimbara/device/route.h>
#include <nimbara/frame/commands.h>
#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/signal/playback.h>

#include "support/sound_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using nimbara::platform::Backend;
using nimbara::platform::OutputStream;
using nimbara::platform::VirtualDevice;

TEST(Backends, AreMadeByNameAndAnUnknownNameSaysWhichExist) {
  EXPECT_STREQ(nimbara::platform::makeBackend("virtual")->name(), "virtual");
  EXPECT_STREQ(nimbara::platform::makeBackend("wav:/tmp/x.wav")->name(), "wav");
  const std::string names = nimbara::platform::backendNames();
  EXPECT_THAT(names, ::testing::HasSubstr("virtual"));
  EXPECT_THAT(names, ::testing::HasSubstr("wav:PATH"));
  for (const char* bad : {"speakers", "wav:", "wav", "virtual:x", "", ":virtual"}) {
    EXPECT_THROW(nimbara::platform::makeBackend(bad), std::invalid_argument) << bad;
  }
  try {
    nimbara::platform::makeBackend("speakers");
  } catch (const std::invalid_argument& e) {
    EXPECT_THAT(e.what(), ::testing::HasSubstr(names));
  }
  EXPECT_EQ(nimbaraAudioUseBackend("speakers"), NIMBARA_AUDIO_ERR_INVALID);
  const std::string fallback = nimbara::platform::defaultBackendName();
  EXPECT_NO_THROW(nimbara::platform::makeBackend(fallback));
  // The route a caller gives a simulated output is its route.
  std::string route;
  ASSERT_EQ(nimbara::platform::makeBackend("virtual", "Speaker")->routeName(&route), 0);
  EXPECT_EQ(route, "Speaker");
}

// A backend with only the two operations every backend must have.
class BareBackend : public Backend {
 public:
  const char* name() const override { return "bare"; }
  std::int32_t openStream(const NimbaraStreamFormat&, std::unique_ptr<OutputStream>*) override {
    return NIMBARA_AUDIO_ERR_IO;
  }
  std::int32_t routeName(std::string* name) override {
    *name = "Bare Headphones";
    return 0;
  }
};

TEST(Backends, AnOperationABackendLacksIsNotSupported) {
  BareBackend bare;
  std::vector<nimbara::platform::OutputInfo> outputs;
  nimbara::platform::OutputLevel level;
  nimbara::platform::PlaybackRate rate;
  std::unique_ptr<nimbara::platform::CaptureStream> capture;
  EXPECT_EQ(bare.listOutputs(&outputs), NIMBARA_AUDIO_ERR_NOT_SUPPORTED);
  EXPECT_EQ(bare.outputLevel(&level), NIMBARA_AUDIO_ERR_NOT_SUPPORTED);
  EXPECT_EQ(bare.playbackRate(&rate), NIMBARA_AUDIO_ERR_NOT_SUPPORTED);
  EXPECT_EQ(bare.openCapture("", &capture), NIMBARA_AUDIO_ERR_NOT_SUPPORTED);
  EXPECT_EQ(capture, nullptr);
  std::vector<std::int16_t> played;
  EXPECT_EQ(bare.takePlayed(&played), NIMBARA_AUDIO_ERR_NOT_SUPPORTED);
  EXPECT_STREQ(nimbaraAudioStatusText(NIMBARA_AUDIO_ERR_NOT_SUPPORTED), "not supported");
  EXPECT_STREQ(nimbaraAudioStatusText(NIMBARA_AUDIO_ERR_RAN_DRY),
               "the output ran dry while the command played");
}

TEST(Backends, TheSimulatedOutputsListThemselvesAtTheSignalsRate) {
  for (const char* name : {"virtual", "wav:/nonexistent/x.wav"}) {
    auto backend = nimbara::platform::makeBackend(name, "Test Headphones");
    std::vector<nimbara::platform::OutputInfo> outputs;
    ASSERT_EQ(backend->listOutputs(&outputs), 0) << name;
    ASSERT_EQ(outputs.size(), 1u);
    EXPECT_EQ(outputs[0].route, "Test Headphones");
    EXPECT_TRUE(nimbara::routeNamesHeadset(outputs[0].route));
    EXPECT_TRUE(outputs[0].isDefault);
    EXPECT_EQ(outputs[0].rate, NIMBARA_SAMPLE_RATE);
    EXPECT_TRUE(outputs[0].exact);
    nimbara::platform::PlaybackRate rate;
    ASSERT_EQ(backend->playbackRate(&rate), 0);
    EXPECT_TRUE(rate.exact);
    EXPECT_EQ(rate.howToAllow, "");
    nimbara::platform::OutputLevel level;
    ASSERT_EQ(backend->outputLevel(&level), 0);
    EXPECT_EQ(level.volumePercent, 100.0);
  }
  EXPECT_FALSE(nimbara::routeNamesHeadset("usb-headphones"));
  EXPECT_TRUE(nimbara::routeNamesHeadset("Built-in: HeadsetInOut"));
}

TEST(Backends, AnOutputThatRanDryFailsTheTransmissionWhenItSaysSo) {
  for (const bool report : {false, true}) {
    VirtualDevice::Options options;
    options.reportRunDry = report;
    auto device = std::make_shared<VirtualDevice>(options);
    nimbara::platform::setBackend(
        std::make_shared<test_support::LateStreamBackend>(  // the third buffer 60 ms late
            device, 3, std::chrono::milliseconds(60)));
    const std::int32_t status =
        executeFunction(createLightLedProtocol(1, 2, 3, 4, 5), 1, 17640, nullptr);
    nimbara::platform::waitUntilIdle();
    nimbara::platform::setBackend(nullptr);
    EXPECT_GE(device->underruns(), 1u);
    EXPECT_EQ(status, report ? NIMBARA_AUDIO_ERR_RAN_DRY : 0) << "reportRunDry " << report;
  }
}

TEST(Backends, TheVirtualDeviceHandsWhatItPlayedOnceToWhoeverListens) {
  VirtualDevice::Options fast;
  fast.timeScale = 0.01;
  auto device = std::make_shared<VirtualDevice>(fast);
  nimbara::platform::setBackend(device);
  ASSERT_EQ(executeFunction(createLightLedProtocol(1, 2, 3, 4, 5), 1, 17640, nullptr), 0);
  nimbara::platform::waitUntilIdle();
  const std::vector<std::int16_t> expected = device->playedSamples();
  ASSERT_FALSE(expected.empty());
  Backend& output = *device;  // as a front end holds it
  std::vector<std::int16_t> played;
  ASSERT_EQ(output.takePlayed(&played), NIMBARA_AUDIO_OK);
  EXPECT_EQ(played, expected);
  ASSERT_EQ(output.takePlayed(&played), NIMBARA_AUDIO_OK);
  EXPECT_TRUE(played.empty()) << "a second take hands nothing again";
  EXPECT_EQ(output.takePlayed(nullptr), NIMBARA_AUDIO_ERR_INVALID);
  nimbara::platform::setBackend(nullptr);
}

TEST(Backends, AThreadsOwnBackendTakesItsTransmissionsAndLeavesTheOthersAlone) {
  VirtualDevice::Options fast;
  fast.timeScale = 0.01;
  const auto makeDevice = [&] { return std::make_shared<VirtualDevice>(fast); };
  const auto send = [](int red) {
    return executeFunction(createLightLedProtocol(red, 2, 3, 4, 5), 1, 17640, nullptr);
  };
  // Each command alone on the process-wide backend, for reference.
  std::vector<std::vector<std::int16_t>> alone;
  for (const int red : {10, 200}) {
    auto device = makeDevice();
    nimbara::platform::setBackend(device);
    ASSERT_EQ(send(red), 0);
    nimbara::platform::waitUntilIdle();
    alone.push_back(device->enqueuedSamples());
  }
  ASSERT_NE(alone[0], alone[1]);

  auto shared = makeDevice();
  nimbara::platform::setBackend(shared);
  std::vector<std::shared_ptr<VirtualDevice>> own = {makeDevice(), makeDevice()};
  std::int32_t status[2] = {-1, -1};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&, i] {
      const nimbara::platform::ThreadBackendScope scope(own[i]);
      status[i] = send(i == 0 ? 10 : 200);
    });
  }
  for (auto& thread : threads) thread.join();
  nimbara::platform::waitUntilIdle();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(status[i], 0);
    EXPECT_EQ(own[i]->enqueuedSamples(), alone[i]) << "thread " << i;
  }
  EXPECT_TRUE(shared->enqueuedSamples().empty());

  // Scopes nest, and the process-wide backend is back after the last.
  {
    const nimbara::platform::ThreadBackendScope outer(own[0]);
    {
      const nimbara::platform::ThreadBackendScope inner(own[1]);
      EXPECT_EQ(nimbara::platform::currentBackend(), own[1]);
    }
    EXPECT_EQ(nimbara::platform::currentBackend(), own[0]);
  }
  EXPECT_EQ(nimbara::platform::currentBackend(), shared);
  nimbara::platform::setBackend(nullptr);
}

}  // namespace
