#include <gtest/gtest.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/track/follower.h>
#include <nimbara/track/track.h>

#include <string>

namespace {

std::string errorOf(const std::string& text, const std::string& name = "t.vtt") {
  try {
    nimbara::parseTrack(text, name);
  } catch (const nimbara::TrackError& e) {
    return e.what();
  }
  return "no error";
}

TEST(Track, WebVttCuesWithTheirLinesAndCommands) {
  const auto cues = nimbara::parseTrack(
      "\xEF\xBB\xBFWEBVTT\r\n\r\nNOTE --> not a cue\r\n\r\n"
      "b\n01:00:00.001 --> 01:00:01.000 position:10%\nspray 200\n\n"
      "a\r00:00.500 --> 00:00.500\rpuff #ff0080\r--time 700 --no-tank\r",
      "t.vtt");
  ASSERT_EQ(cues.size(), 2u);
  EXPECT_DOUBLE_EQ(cues[0].start, 0.5);
  EXPECT_EQ(cues[0].startFrame, 22050u);
  EXPECT_EQ(cues[0].line, 11);
  EXPECT_EQ(cues[0].text, "puff #ff0080\n--time 700 --no-tank");
  EXPECT_EQ(cues[0].command.verb, "puff");
  EXPECT_EQ(cues[0].command.red, 255);
  EXPECT_EQ(cues[0].command.blue, 128);
  EXPECT_EQ(cues[0].command.time, 700);
  EXPECT_FALSE(cues[0].command.asksTank);
  EXPECT_DOUBLE_EQ(cues[1].start, 3600.001);  // sorted by time, not by file order
  // A cue straight after the header line still counts.
  EXPECT_EQ(nimbara::parseTrack("WEBVTT\n00:01.000 --> 00:02.000\nstate\n", "t.vtt")[0].line, 3);
  EXPECT_EQ(cues[1].line, 7);
  EXPECT_EQ(cues[1].command.time, 200);
}

TEST(Track, CueFilesAndFieldMaps) {
  const auto cues = nimbara::parseTrack(
      "# a film\n0 flash #00ff00 # green\n\n2.5 {\"command\": \"echo\", \"number\": 7}\n",
      "t.cues");
  ASSERT_EQ(cues.size(), 2u);
  EXPECT_EQ(cues[0].line, 2);
  EXPECT_EQ(cues[0].command.green, 255);
  EXPECT_EQ(cues[1].command.verb, "echo");
  EXPECT_EQ(cues[1].command.number, 7u);
  EXPECT_EQ(nimbara::cueCommand("state").verb, "state");
  EXPECT_EQ(nimbara::cueCommand(
                "{\"command\":\"puff\",\"red\":0,\"green\":0,\"blue\":0,\"asks_tank\":false}")
                .asksTank,
            false);
  EXPECT_THROW(nimbara::cueCommand("{\"command\": \"puff\""), std::invalid_argument);
  EXPECT_THROW(nimbara::cueCommand("spray 300 --time 3"), std::invalid_argument);
}

TEST(Track, ErrorsNameTheFileAndLine) {
  EXPECT_EQ(errorOf("WEBVTT\n\n00:01.000 --> 00:00.999\npuff red\n"),
            "t.vtt:3: the cue ends before it starts");
  EXPECT_EQ(errorOf("WEBVTT\n\n00:01.00 --> 00:02.000\npuff red\n"),
            "t.vtt:3: the cue's start is not a time (mm:ss.ttt or hh:mm:ss.ttt)");
  EXPECT_EQ(errorOf("WEBVTT\n\n1:00:01.000 --> 1:00:02.000\npuff red\n"),
            "t.vtt:3: the cue's start is not a time (mm:ss.ttt or hh:mm:ss.ttt)");
  EXPECT_EQ(errorOf("WEBVTT\n\n00:01.000 --> 00:02.000\npuff red\n00:03.000 --> 00:04.000\n"),
            "t.vtt:5: a blank line must end the cue before \"-->\"");
  EXPECT_EQ(errorOf("WEBVTT\n\n00:01.000 --> 00:02.000\nflash\n"),
            "t.vtt:4: a colour is R G B or one word (#rrggbb, rrggbb or a CSS name), not 0 words");
  EXPECT_EQ(errorOf("WEBVTTX\n"), "t.vtt:1: a WebVTT file starts with \"WEBVTT\"");
  EXPECT_EQ(errorOf("1 puff red\nsoon flash red\n", "t.cues"),
            "t.cues:2: the time must be a number of seconds, 0 or more, not \"soon\"");
  EXPECT_EQ(errorOf("1 puff red\n2\n", "t.cues"), "t.cues:2: a time needs a command after it");
  EXPECT_EQ(errorOf("", "t.cues"), "t.cues holds no cue");
  // Whatever a message quotes from the track, it stays one line.
  EXPECT_EQ(errorOf("WEBVTT\n\n00:01.000 --> 00:02.000\n{\"command\": \"fla\\u000ash\"}\n"),
            "t.vtt:4: unknown command \"fla sh\" (did you mean flash?)");
}

TEST(Track, OverlapsAreRefusedAndTouchingCuesPlay) {
  const nimbara::Command echo = nimbara::cueCommand("echo 1");
  const double length = nimbara::commandFrames(echo) / 44100.0;  // 0.4 s
  char text[160];
  std::snprintf(text, sizeof text, "0 echo 1\n%.6f echo 2\n", length);
  const auto touching = nimbara::parseTrack(text, "t.cues");
  EXPECT_EQ(touching[1].startFrame, nimbara::commandFrames(echo));
  std::snprintf(text, sizeof text, "0 echo 1\n%.6f echo 2\n", length - 0.001);
  EXPECT_EQ(errorOf(text, "t.cues"),
            "t.cues:2: starts at 0.399 s, before the echo of line 1 has finished (at 0.400 s)");
}

TEST(Track, RendersEachCommandAtItsCue) {
  const auto cues = nimbara::parseTrack("0.1 echo 1\n1.234 flash teal\n3 spray 300\n", "t.cues");
  const auto samples = nimbara::renderTrack(cues);
  EXPECT_EQ(samples.size(), 2 * nimbara::trackFrames(cues));
  nimbara::Receiver receiver(44100, 2);
  receiver.push(samples.data(), samples.size() / 2);
  receiver.finish();
  const auto heard = receiver.take();
  ASSERT_EQ(heard.size(), 3u);
  for (std::size_t i = 0; i < heard.size(); ++i) {
    EXPECT_EQ(heard[i].command, cues[i].command.verb);
    EXPECT_NEAR(heard[i].startSeconds, cues[i].start, 0.005);
  }
}

// A film of cues at 1, 2, 3 and 4 s, followed on a clock of the test's own.
std::vector<nimbara::TrackCue> film() {
  return nimbara::parseTrack("1 echo 1\n2 echo 2\n3 echo 3\n4 echo 4\n", "t.cues");
}

std::vector<std::uint32_t> numbers(const std::vector<nimbara::TrackCue>& cues) {
  std::vector<std::uint32_t> n;
  for (const auto& cue : cues) n.push_back(cue.command.number);
  return n;
}

TEST(TrackFollower, PlaysPausesAndSeeks) {
  nimbara::TrackFollower follower(film());
  EXPECT_FALSE(follower.nextDue());  // no position heard yet
  follower.position(0.0, 100.0);
  EXPECT_DOUBLE_EQ(*follower.nextDue(), 101.0);
  EXPECT_TRUE(follower.due(100.99).empty());
  EXPECT_EQ(numbers(follower.due(101.0)), std::vector<std::uint32_t>{1});
  EXPECT_TRUE(follower.due(101.5).empty());  // each cue once

  // A pause at 1.5 s into the film, for ten seconds: cue 2 half a second after.
  follower.paused(true, 101.5);
  EXPECT_FALSE(follower.nextDue());
  EXPECT_TRUE(follower.due(111.0).empty());
  follower.paused(false, 111.5);
  EXPECT_DOUBLE_EQ(*follower.nextDue(), 112.0);
  follower.position(1.6, 111.6);  // in step with the clock: no jump
  EXPECT_EQ(numbers(follower.due(112.0)), std::vector<std::uint32_t>{2});

  // A seek past cue 3: it is not sent; the next cue counts from the new place.
  follower.seeked();
  EXPECT_FALSE(follower.nextDue());
  follower.position(3.5, 113.0);
  EXPECT_DOUBLE_EQ(*follower.nextDue(), 113.5);
  EXPECT_EQ(numbers(follower.due(113.5)), std::vector<std::uint32_t>{4});

  // A jump back without a seek event: the position alone places the track.
  follower.position(0.5, 114.0);
  EXPECT_EQ(follower.next(), 0u);
  EXPECT_EQ(numbers(follower.due(116.0)), (std::vector<std::uint32_t>{1, 2}));
  follower.position(4.0, 116.1);  // a jump onto a cue sends it
  EXPECT_EQ(numbers(follower.due(116.1)), std::vector<std::uint32_t>{4});
  EXPECT_FALSE(follower.nextDue());  // the end of the track
}

TEST(TrackFollower, JoinsAFilmUnderWay) {
  nimbara::TrackFollower follower(film());
  follower.paused(true, 50.0);
  follower.position(2.5, 50.0);  // already past cues 1 and 2
  EXPECT_TRUE(follower.due(60.0).empty());
  follower.paused(false, 60.0);
  EXPECT_DOUBLE_EQ(*follower.nextDue(), 60.5);
  EXPECT_EQ(numbers(follower.due(61.6)), (std::vector<std::uint32_t>{3, 4}));
}

}  // namespace
