// A timeline of commands: rendered to the sample, and played through the
// playback engine exactly as rendered.
#include <nimbara/api/timeline.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/signal/playback.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/virtual_output.h"

namespace {

nimbara::Command flash(std::uint8_t red) {
  nimbara::Command command;
  command.verb = "flash";
  command.red = red;
  return command;
}

TEST(Timeline, PlaysEachCommandAtItsFrameThroughTheEngine) {
  nimbara::Command echo;
  echo.verb = "echo";
  echo.number = 77;
  const std::vector<nimbara::Cue> cues = {{0, flash(10)}, {50000, echo}, {100001, flash(30)}};
  const auto timeline = nimbara::renderTimeline(cues);
  ASSERT_EQ(timeline.size(), 2 * (100001 + nimbara::commandFrames(flash(30))));
  // Each command's own samples, at its frame.
  const auto second = nimbara::renderCommand(echo);
  EXPECT_TRUE(std::equal(second.begin(), second.begin() + 2 * nimbara::commandFrames(echo),
                         timeline.begin() + 2 * 50000));

  nimbara::test::VirtualOutput output;
  ASSERT_EQ(nimbara::playTimeline(cues), 0);
  nimbara::platform::waitUntilIdle();
  const auto played = output->playedSamples();
  ASSERT_GE(played.size(), timeline.size());
  EXPECT_TRUE(std::equal(timeline.begin(), timeline.end(), played.begin()));
  // Whole buffers: what follows the timeline is silence.
  EXPECT_EQ(played.size() % (2 * NIMBARA_FRAMES_PER_BUFFER), 0u);
  EXPECT_TRUE(std::all_of(played.begin() + timeline.size(), played.end(),
                          [](std::int16_t s) { return s == 0; }));

  nimbara::Receiver receiver(NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS);
  receiver.push(played.data(), played.size() / 2);
  receiver.finish();
  const auto heard = receiver.take();
  ASSERT_EQ(heard.size(), 3u);
  EXPECT_EQ(heard[1].command, "echo");
  EXPECT_EQ(heard[1].number, 77u);
  EXPECT_EQ(heard[2].red, 30);
}

TEST(Timeline, RefusesOverlapsAndNothing) {
  EXPECT_THROW(nimbara::renderTimeline({}), std::invalid_argument);
  EXPECT_THROW(nimbara::renderTimeline({{0, flash(1)}, {100, flash(2)}}), std::invalid_argument);
  EXPECT_EQ(nimbara::playFrames(nullptr, 10), NIMBARA_AUDIO_ERR_INVALID);
}

}  // namespace
