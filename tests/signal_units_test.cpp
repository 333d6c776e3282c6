#include <nimbara/frame/commands.h>
#include <nimbara/signal/signal_units.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "signal/fixed_units.h"
#include "support/expected_signal.h"
#include "support/log_capture.h"

namespace {

using nimbara::test::LogCapture;
using ::testing::ElementsAre;
namespace fixed = nimbara::detail;

std::vector<const void*> allFixedPointers() {
  return {fixed::waveNum00, fixed::waveNum01, fixed::wakeUp,       fixed::noSound,
          fixed::stopBits,  fixed::data0x00,  fixed::checkZeroBit, fixed::checkOneBit};
}

TEST(SignalUnits, WaveformsAreOneSquarePeriodWithCrossedNames) {
  clearProtocolUnit();
  initProtocolUnit();
  const WaveTable* one = fixed::waveNum00;
  const WaveTable* zero = fixed::waveNum01;
  EXPECT_STREQ(one->name, "V00");
  EXPECT_STREQ(zero->name, "V01");
  ASSERT_EQ(one->length, 40u);
  ASSERT_EQ(zero->length, 20u);
  for (std::uint32_t i = 0; i < 40; ++i) EXPECT_EQ(one->samples[i], i < 20 ? 32767 : -32768);
  for (std::uint32_t i = 0; i < 20; ++i) EXPECT_EQ(zero->samples[i], i < 10 ? 32767 : -32768);
}

TEST(SignalUnits, FixedUnitsAreStaticWithTheirContent) {
  initProtocolUnit();
  struct Expect {
    const ProtocolUnit* unit;
    const char* name;
    std::uint32_t kind;
    int length;
    std::uint8_t fill;
  };
  const Expect expected[] = {
      {fixed::wakeUp, "WAK", 1, 220, 1},     {fixed::noSound, "N00", 1, 441, 0},
      {fixed::stopBits, "S01", 1, 5, 1},     {fixed::data0x00, "D00", 0, 8, 0},
      {fixed::checkZeroBit, "CP0", 0, 1, 0}, {fixed::checkOneBit, "CP1", 0, 1, 1},
  };
  for (const Expect& e : expected) {
    ASSERT_NE(e.unit, nullptr);
    EXPECT_STREQ(e.unit->name, e.name);
    EXPECT_EQ(e.unit->kind, e.kind) << e.name;
    EXPECT_EQ(e.unit->isStatic, 1) << e.name;
    ASSERT_EQ(e.unit->length, e.length) << e.name;
    for (int i = 0; i < e.length; ++i) EXPECT_EQ(e.unit->data[i], e.fill) << e.name;
  }
}

TEST(SignalUnits, BuildLogsTwiceOnlyWhenItReallyBuilds) {
  clearProtocolUnit();
  clearProtocolUnit();  // clearing twice is harmless
  LogCapture log;
  initProtocolUnit();
  const auto built = allFixedPointers();
  initProtocolUnit();
  EXPECT_EQ(allFixedPointers(), built);
  EXPECT_THAT(log.take(), ElementsAre("waveNum0", "waveNum1"));

  clearProtocolUnit();
  for (const void* pointer : allFixedPointers()) EXPECT_EQ(pointer, nullptr);
  EXPECT_TRUE(log.take().empty());
  initProtocolUnit();
  EXPECT_THAT(log.take(), ElementsAre("waveNum0", "waveNum1"));
  EXPECT_EQ(fixed::wakeUp.load()->length, 220);
}

TEST(SignalUnits, ConcurrentFirstFramesBuildTheUnitsOnce) {
  for (int round = 0; round < 20; ++round) {
    clearProtocolUnit();
    LogCapture log;
    std::atomic<bool> go{false};
    std::vector<FrameNode*> frames(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < frames.size(); ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) std::this_thread::yield();
        frames[t] = createAcquireProtocol();
      });
    }
    go = true;
    for (auto& thread : threads) thread.join();
    int builds = 0;
    for (const auto& line : log.take()) builds += line == "waveNum0";
    EXPECT_EQ(builds, 1);
    for (FrameNode* frame : frames) {
      EXPECT_EQ(frame->protocol, fixed::wakeUp);
      freeProtocolFrame(frame);
    }
  }
}

}  // namespace
