#include <nimbara/api/command.h>
#include <nimbara/device/operations.h>
#include <nimbara/frame/frame.h>
#include <nimbara/frame/protocol_unit.h>
#include <nimbara/log.h>
#include <nimbara/platform/wav_device.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/signal_units.h>
#include <nimbara/tank/TankId.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <random>

#include "support/channel.h"
#include "support/virtual_output.h"

namespace {

using nimbara::Receiver;
using nimbara::Transmission;
using namespace nimbara::test;

// What the playback engine hands the output for one device operation.
Signal played(const std::function<void()>& operation) {
  nimbara::setLogSink({});
  VirtualOutput output;
  operation();
  nimbara::platform::waitUntilIdle();
  return leftChannel(output->enqueuedSamples());
}

struct Case {
  const char* command;
  std::function<void()> operation;
  std::function<void(const Transmission&)> check;
};

std::vector<Case> everyOperation() {
  return {
      {"state", [] { doAquireDeviceState(); }, [](const Transmission&) {}},
      {"tank",
       [] {
         auto tank = std::make_shared<nimbara::TankId>();
         doGetTankId(tank);
       },
       [](const Transmission&) {}},
      {"echo",
       [] {
         uint32_t out = 0;
         doEcho(0xDEADBEEF, &out);
       },
       [](const Transmission& t) { EXPECT_EQ(t.number, 0xDEADBEEFu); }},
      {"flash", [] { doLightLed(255, 0, 128, 7, -1); },
       [](const Transmission& t) {
         EXPECT_EQ(t.red, 255);
         EXPECT_EQ(t.green, 0);
         EXPECT_EQ(t.blue, 128);
         EXPECT_EQ(t.special, 7);
         EXPECT_EQ(t.time, -1);
       }},
      {"puff", [] { doSprayWithLightLed(1, 2, 3, 4, 5000); },
       [](const Transmission& t) {
         EXPECT_FALSE(t.asksTank);
         EXPECT_EQ(t.red, 1);
         EXPECT_EQ(t.time, 1000);  // clamped by the operation
       }},
      {"puff",
       [] {
         auto tank = std::make_shared<nimbara::TankId>();
         doSprayWithLightLedGetTankId(10, 20, 30, 40, 50, tank);
       },
       [](const Transmission& t) {
         EXPECT_TRUE(t.asksTank);
         EXPECT_EQ(t.blue, 30);
         EXPECT_EQ(t.time, 100);
       }},
  };
}

std::vector<Transmission> receive(const Signal& signal, double rate, std::size_t chunk = 4096) {
  Receiver receiver(rate, 1);
  for (std::size_t at = 0; at < signal.size(); at += chunk) {
    receiver.push(signal.data() + at, std::min(chunk, signal.size() - at));
  }
  receiver.finish();
  return receiver.take();
}

void expectDecoded(const std::vector<Transmission>& received, const Case& c, const char* path) {
  std::string all;
  for (const Transmission& t : received) all += " [" + t.bits[0] + " / " + t.bits[1] + "]";
  ASSERT_EQ(received.size(), 1u) << c.command << " through " << path << all;
  const Transmission& t = received[0];
  EXPECT_FALSE(t.damaged) << c.command << " through " << path << ": " << t.bits[0] << " / "
                          << t.bits[1];
  EXPECT_EQ(t.command, c.command) << path;
  c.check(t);
}

TEST(Receiver, DecodesEveryOperationAsPlayed) {
  for (const Case& c : everyOperation()) {
    const Signal signal = withSilence(played(c.operation), 2000, 2000);
    const auto received = receive(signal, 44100);
    expectDecoded(received, c, "a clean line");
    if (!received.empty()) {
      EXPECT_NEAR(received[0].startSeconds, 2000 / 44100.0, 0.001);
      EXPECT_TRUE(received[0].parityOk[0] && received[0].parityOk[1]);
      EXPECT_TRUE(received[0].repetitionsAgree);
    }
  }
}

TEST(Receiver, SurvivesEachImpairmentAloneAndAllTogether) {
  using Path = std::function<Signal(const Signal&)>;
  const std::vector<std::pair<const char*, std::pair<Path, double>>> paths = {
      {"-40 dB", {[](const Signal& s) { return gain(s, -40); }, 44100}},
      {"inverted", {[](const Signal& s) { return invert(s); }, 44100}},
      {"DC offset", {[](const Signal& s) { return offset(s, 0.3f); }, 44100}},
      {"48000 Hz", {[](const Signal& s) { return resample(s, 48000 / 44100.0); }, 48000}},
      {"22050 Hz",
       {[](const Signal& s) { return resample(biquad(s, 44100, 9000, false), 0.5); }, 22050}},
      {"low-pass 8 kHz", {[](const Signal& s) { return biquad(s, 44100, 8000, false); }, 44100}},
      {"high-pass 100 Hz", {[](const Signal& s) { return biquad(s, 44100, 100, true); }, 44100}},
      {"clock +1%", {[](const Signal& s) { return resample(s, 1.01); }, 44100}},
      {"clock -1%", {[](const Signal& s) { return resample(s, 0.99); }, 44100}},
      {"noise 12 dB", {[](const Signal& s) { return noise(s, 12, 1.0f, 7); }, 44100}},
      {"all together",
       {[](const Signal& s) {
          Signal o = invert(biquad(biquad(s, 44100, 100, true), 44100, 8000, false));
          o = offset(gain(resample(o, 48000 / 44100.0 * 1.01), -20), 0.05f);
          return noise(o, 12, 0.1f, 11);
        },
        48000}},
  };
  for (const Case& c : everyOperation()) {
    const Signal clean = withSilence(played(c.operation), 4000, 4000);
    for (const auto& [name, path] : paths) {
      expectDecoded(receive(path.first(clean), path.second), c, name);
    }
  }
}

// The share of transmissions decoded right at a signal-to-noise ratio.
double decodedShare(double snr, int trials) {
  const Signal clean =
      withSilence(played([] { doSprayWithLightLed(200, 100, 50, 1, 700); }), 4000, 4000);
  int right = 0;
  for (int seed = 0; seed < trials; ++seed) {
    const auto received = receive(noise(clean, snr, 1.0f, 100 + seed), 44100);
    const bool ok = received.size() == 1 && !received[0].damaged && received[0].red == 200 &&
                    received[0].time == 700;
    right += ok;
  }
  return static_cast<double>(right) / trials;
}

TEST(Receiver, DecodesThroughNoise) {
  EXPECT_EQ(decodedShare(15, 20), 1.0);
  EXPECT_GE(decodedShare(6, 20), 0.85);
}

TEST(Receiver, NoiseAndDamageNeverPassAsCommands) {
  std::mt19937 random(5);
  std::normal_distribution<float> gauss(0, 0.3f);
  Signal pure(44100 * 3);
  for (float& x : pure) x = gauss(random);
  for (const Transmission& t : receive(pure, 44100)) EXPECT_TRUE(t.damaged);

  // A repetition with one bit period stretched from a 0 into a 1.
  Signal signal = withSilence(played([] { doLightLed(0, 0, 0, 0, 0); }), 2000, 2000);
  const std::size_t firstPayload = 2000 + 220 + 441;
  for (std::size_t i = firstPayload + 20 * 8; i < signal.size(); ++i) {
    if (i < firstPayload + 20 * 8 + 40) signal[i] = i < firstPayload + 20 * 8 + 20 ? 1.0f : -1.0f;
  }
  const auto received = receive(signal, 44100);
  ASSERT_FALSE(received.empty());
  EXPECT_TRUE(received[0].damaged);
  EXPECT_FALSE(received[0].repetitionsAgree);

  // Only the first repetition: damaged too.
  Signal cut = played([] { doLightLed(1, 1, 1, 1, 1); });
  cut.resize(220 + 441 + 57 * 40 + 100, 0);
  const auto single = receive(withSilence(cut, 1000, 5000), 44100);
  ASSERT_EQ(single.size(), 1u);
  EXPECT_TRUE(single[0].damaged);
}

TEST(Receiver, ChunkSizesDoNotMatter) {
  const Signal signal = withSilence(played([] { doLightLed(9, 8, 7, 6, 5); }), 1000, 1000);
  for (std::size_t chunk : {1u, 7u, 735u, 100000u}) {
    const auto received = receive(signal, 44100, chunk);
    ASSERT_EQ(received.size(), 1u) << chunk;
    EXPECT_EQ(received[0].bits[0], receive(signal, 44100)[0].bits[0]);
  }
}

TEST(Receiver, ReadsWhatTheWavWriterWrote) {
  nimbara::setLogSink({});
  VirtualOutput output;
  doEcho(42, nullptr);
  nimbara::platform::waitUntilIdle();
  const auto samples = output->enqueuedSamples();
  const std::string path = ::testing::TempDir() + "/nimbara_echo.wav";
  ASSERT_EQ(nimbara::platform::writeWavFile(path, samples.data(), samples.size() / 2), 0);
  nimbara::WavAudio audio;
  std::string error;
  ASSERT_TRUE(nimbara::readWavFile(path, &audio, &error)) << error;
  EXPECT_EQ(audio.channels, 2);
  EXPECT_EQ(audio.samples.size(), samples.size());
  const auto received = nimbara::decodeAudio(audio);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].number, 42u);

  EXPECT_FALSE(nimbara::readWavFile(path + ".missing", &audio, &error));
  std::ofstream(path) << "RIFF not really";
  EXPECT_FALSE(nimbara::readWavFile(path, &audio, &error));
  EXPECT_NE(error.find("is not an audio file libsndfile reads"), std::string::npos);
  ASSERT_EQ(nimbara::platform::writeWavFile(path, samples.data(), 0), 0);
  EXPECT_FALSE(nimbara::readWavFile(path, &audio, &error));
  EXPECT_NE(error.find("holds no samples"), std::string::npos);
  std::remove(path.c_str());
}

// A flash, as the operation renders it, mono.
Signal flash() {
  return leftChannel(nimbara::renderCommand(nimbara::makeCommand("flash", {12, 34, 56, 7, 890})));
}

TEST(Receiver, StereoWithOppositeChannelsIsNotCancelled) {
  const Signal mono = withSilence(flash(), 3000, 3000);
  std::vector<float> stereo;
  for (float x : mono) {
    stereo.push_back(x);
    stereo.push_back(-x);  // averaged, this would be silence
  }
  Receiver receiver(44100, 2);
  receiver.push(stereo.data(), mono.size());
  receiver.finish();
  const auto received = receiver.take();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_FALSE(received[0].damaged);
  EXPECT_EQ(received[0].blue, 56);
}

TEST(Receiver, DecodesAtEightKilohertz) {
  // Band-limited below the new Nyquist frequency first, as a resampler does.
  const Signal signal = resample(
      biquad(biquad(withSilence(flash(), 3000, 3000), 44100, 3400, false), 44100, 3400, false),
      8000 / 44100.0);
  const auto received = receive(signal, 8000);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_FALSE(received[0].damaged) << received[0].bits[0] << " / " << received[0].bits[1];
  EXPECT_EQ(received[0].time, 890);
}

TEST(Receiver, ConfidenceAndSignalToNoiseAreMeasured) {
  const Signal clean = withSilence(flash(), 3000, 3000);
  const auto quiet = receive(clean, 44100);
  const auto noisy = receive(noise(clean, 6, 1.0f, 3), 44100);
  ASSERT_EQ(quiet.size(), 1u);
  ASSERT_EQ(noisy.size(), 1u);
  // The weakest bit's margin: well clear of the threshold on a clean line.
  EXPECT_GT(quiet[0].confidence, 0.5);
  EXPECT_LE(quiet[0].confidence, 1.0);
  EXPECT_GT(quiet[0].snrDb, 40);
  // White noise 6 dB below the square wave, measured in the receiver's band.
  EXPECT_NEAR(noisy[0].snrDb, 6 + 10 * std::log10(22050.0 / 6800), 3);
  EXPECT_GT(noisy[0].confidence, 0.0);
}

TEST(Receiver, ReportsATransmissionSoonAfterItEnds) {
  const Signal signal = withSilence(flash(), 3000, 44100);
  const std::size_t end = 3000 + flash().size();  // the frame's padding included
  Receiver receiver(44100, 1);
  std::size_t pushed = 0, reportedAt = 0;
  receiver.onTransmission([&](const Transmission&) { reportedAt = pushed; });
  constexpr std::size_t kChunk = 441;  // 10 ms, as a sound card delivers
  for (; pushed < signal.size() && reportedAt == 0;) {
    const std::size_t n = std::min(kChunk, signal.size() - pushed);
    receiver.push(signal.data() + pushed, n);
    pushed += n;
  }
  ASSERT_NE(reportedAt, 0u) << "not reported before the end of the stream";
  EXPECT_LE(reportedAt, end + 4410) << "more than 100 ms after the end";
}

TEST(Receiver, AnEchoIsNotASecondTransmission) {
  const Signal direct = withSilence(flash(), 3000, 10000);
  for (int delayMs : {1, 30, 80, 140}) {
    Signal room = direct;
    const auto delay = static_cast<std::size_t>(delayMs * 44.1);
    for (std::size_t i = delay; i < room.size(); ++i) room[i] += 0.5f * direct[i - delay];
    const auto received = receive(room, 44100);
    int undamaged = 0;
    for (const Transmission& t : received) undamaged += !t.damaged;
    EXPECT_LE(undamaged, 1) << delayMs << " ms";
    for (const Transmission& t : received) {
      if (!t.damaged) {
        EXPECT_EQ(t.red, 12) << delayMs << " ms";
      }
    }
  }
}

// Short reflections smear every bit into the next: a phone on a table, a
// small room. Each operation still reads exactly, and only once.
TEST(Receiver, ReadsThroughShortReflections) {
  for (const auto& [delay, strength] : {std::pair{13, 0.6f}, {44, 0.4f}}) {
    for (const Case& c : everyOperation()) {
      const Signal direct = withSilence(played(c.operation), 3000, 3000);
      Signal room = direct;
      for (std::size_t i = delay; i < room.size(); ++i) room[i] += strength * direct[i - delay];
      const std::string path = std::to_string(delay) + " samples of reflection";
      expectDecoded(receive(room, 44100), c, path.c_str());
    }
  }
}

// A frame with an opcode no command has is reported as what it is, not as
// the nearest command the receiver knows.
TEST(Receiver, AnUnknownOpcodeIsNotMadeACommand) {
  for (std::uint8_t opcode : {6, 7, 0x80}) {
    const Signal signal = withSilence(played([opcode] {
                                        initProtocolUnit();
                                        FrameNode* frame =
                                            buildProtocol(create8bitProtocolUnit(opcode),
                                                          create32bitProtocolUnit(42));
                                        executeFunction(frame, 0, 2 * 5000, nullptr);
                                      }),
                                      2000, 2000);
    const auto received = receive(signal, 44100);
    ASSERT_EQ(received.size(), 1u) << int(opcode);
    EXPECT_TRUE(received[0].damaged) << int(opcode);
    EXPECT_EQ(received[0].command, "unknown") << int(opcode);
    EXPECT_EQ(received[0].opcode, opcode);
  }
}

// The layouts' edge cases: every argument at zero and at its maximum,
// alternating bits, the echo's extreme numbers, each verb.
std::vector<nimbara::Command> edgeCases() {
  using nimbara::makeCommand;
  return {
      makeCommand("flash", {255, 255, 255, 255, 32767}),
      makeCommand("flash", {0, 0, 0, 0, 0}),
      makeCommand("flash", {170, 85, 170, 85, -21846}),
      makeCommand("doSprayWithLightLedGetTankId", {255, 255, 255, 255, 1000}),
      makeCommand("doSprayWithLightLed", {0, 0, 0, 0, 100}),
      makeCommand("echo", {4294967295}),
      makeCommand("echo", {0}),
      makeCommand("echo", {2863311530}),
      makeCommand("spray", {32767}),
      makeCommand("state", {}),
      makeCommand("tank", {}),
  };
}

bool same(const Transmission& t, const nimbara::Command& c) {
  return t.command == c.verb && t.red == c.red && t.green == c.green && t.blue == c.blue &&
         t.special == c.special && t.number == c.number &&
         (c.verb == "state" || c.verb == "tank" || c.verb == "echo" ||
          t.time == nimbara::sentTime(c));
}

// Through channels that smear, tilt and bury the bits, each edge case is
// reported exactly or damaged: never as another command (a reading that
// starts some bits late fits another layout), never twice.
TEST(Receiver, AnEdgeCaseIsNeverReadAsAnotherCommand) {
  using Path = std::function<Signal(const Signal&)>;
  const std::vector<std::pair<std::string, Path>> paths = {
      {"inverted, band 300-3400 Hz",
       [](const Signal& s) {
         return invert(
             biquad(biquad(biquad(s, 44100, 300, true), 44100, 3400, false), 44100, 3400, false));
       }},
      {"reflection at 20 samples", [](const Signal& s) {
         Signal o = s;
         for (std::size_t i = 20; i < o.size(); ++i) o[i] -= 0.7f * s[i - 20];
         return o;
       }}};
  int exact = 0, runs = 0;
  for (const nimbara::Command& c : edgeCases()) {
    const Signal clean = withSilence(leftChannel(nimbara::renderCommand(c)), 3000, 3000);
    for (const auto& [name, path] : paths) {
      for (const double snr : {99.0, 9.0, 6.0, 3.0}) {
        for (unsigned seed = 0; seed < (snr > 50 ? 1u : 3u); ++seed) {
          const auto received = receive(noise(path(clean), snr, 1.0f, 40 + seed), 44100);
          int undamaged = 0;
          for (const Transmission& t : received) {
            if (t.damaged) continue;
            ++undamaged;
            EXPECT_TRUE(same(t, c)) << c.verb << " through " << name << " at " << snr
                                    << " dB read as " << t.command << ": " << t.bits[0];
          }
          EXPECT_LE(undamaged, 1) << c.verb << " through " << name << " at " << snr << " dB";
          exact += undamaged == 1;
          ++runs;
        }
      }
    }
  }
  // Not by reporting nothing: most of them still come through.
  EXPECT_GT(exact, runs / 2);
}

// A room that rings on long after the transmission (a reverberator of
// combs and all-passes, the tail about a second long), and discrete echoes
// later than the shortest transmission: one transmission is one report.
// Two transmissions sent one after the other are two, however alike.
TEST(Receiver, OneTransmissionIsOneReportHoweverLongTheRoom) {
  const auto reverberate = [](const Signal& s) {
    Signal wet(s.size(), 0.0f);
    for (const std::size_t delay : {1116u, 1188u, 1277u, 1356u}) {
      Signal comb(s.size(), 0.0f);
      for (std::size_t i = 0; i < s.size(); ++i) {
        comb[i] = s[i] + (i >= delay ? 0.85f * comb[i - delay] : 0.0f);
      }
      for (std::size_t i = 0; i < s.size(); ++i) wet[i] += 0.25f * comb[i];
    }
    for (const std::size_t delay : {556u, 441u}) {
      Signal out(wet.size(), 0.0f);
      for (std::size_t i = 0; i < wet.size(); ++i) {
        const float back = i >= delay ? wet[i - delay] : 0.0f;
        const float fed = i >= delay ? out[i - delay] : 0.0f;
        out[i] = -0.5f * wet[i] + back + 0.5f * fed;
      }
      wet = out;
    }
    Signal mixed = s;
    for (std::size_t i = 0; i < s.size(); ++i) mixed[i] += 0.12f * wet[i];
    return mixed;
  };
  const auto echo = [](const Signal& s, double seconds) {
    Signal o = s;
    const auto delay = static_cast<std::size_t>(seconds * 44100);
    for (std::size_t i = delay; i < o.size(); ++i) o[i] += 0.5f * s[i - delay];
    return o;
  };
  int longRoomsExact = 0;
  for (const nimbara::Command& c : {nimbara::makeCommand("state", {}),
                                    nimbara::makeCommand("flash", {255, 255, 255, 255, 32767}),
                                    nimbara::makeCommand("echo", {2863311530})}) {
    const Signal once = leftChannel(nimbara::renderCommand(c));
    const Signal clean = withSilence(once, 3000, 2 * 44100);
    for (const auto& [name, room] :
         std::vector<std::pair<std::string, Signal>>{{"reverberation", reverberate(clean)},
                                                     {"echo at 300 ms", echo(clean, 0.3)},
                                                     {"echo at 700 ms", echo(clean, 0.7)}}) {
      int undamaged = 0;
      for (const Transmission& t : receive(room, 44100)) {
        if (t.damaged) continue;
        ++undamaged;
        EXPECT_TRUE(same(t, c)) << c.verb << " through " << name << ": " << t.bits[0];
      }
      // Under the reverberation a short payload may be missed; never twice.
      EXPECT_LE(undamaged, 1) << c.verb << " through " << name;
      if (name != "reverberation") {
        EXPECT_EQ(undamaged, 1) << c.verb << " through " << name;
      }
      longRoomsExact += undamaged;
    }
    // The same command twice, back to back: two reports.
    Signal twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    int undamaged = 0;
    for (const Transmission& t : receive(withSilence(twice, 3000, 3000), 44100)) {
      undamaged += !t.damaged && same(t, c);
    }
    EXPECT_EQ(undamaged, 2) << c.verb << " sent twice";
  }
  EXPECT_GE(longRoomsExact, 8);  // of nine
}

}  // namespace
