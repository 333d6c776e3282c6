// Transmissions back to back on one real output while the machine is loaded,
// each checked against a recording of the output's monitor: it arrived bit for
// bit, or the library reported it failed. Prints a Markdown table.
//
//   nimbara_load_test OUTPUT MONITOR COUNT TITLE
//
// OUTPUT is a backend as --device names it ("pulse:headphones",
// "pipewire:speaker"), MONITOR the source parec records through PULSE_SERVER.
// Exits with 0 when no transmission was lost silently and at least half of
// them arrived bit for bit (an output that fails everything must not pass), 1
// when not, 2 when the run could not be made. A client without real-time
// scheduling on a loaded machine does miss the graph's cycles now and then:
// those are reported, and that is what is checked here.
#include <nimbara/frame/commands.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/signal/playback.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/signals.h"
#include "support/sound_server.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr unsigned long kSampleLen = 35280;  // 17640 stereo frames: 0.4 s
constexpr std::uintmax_t kBytesPerSecond = 44100 * 4;

// Every transmission's arguments differ, so that each one's signal is its own.
struct Light {
  std::uint8_t red, green, blue;
  std::int16_t time;
};
Light lightOf(int i) {
  return {static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8),
          static_cast<std::uint8_t>(255 - i), static_cast<std::int16_t>(100 + i % 900)};
}

struct Tally {
  int exact = 0;
  int reported = 0;
  int reportedButExact = 0;
  std::vector<int> silent;
  std::vector<std::string> silentHow;
  std::map<std::string, std::vector<int>> reasons;
};

// Where a transmission that was not recorded whole first differs from its
// signal, and whether silence came in there or frames went missing: its
// opening (the wake-up and the silence after it) is taken to be the next one
// in the recording.
std::string howItDiffers(std::vector<std::int16_t>::const_iterator from,
                         std::vector<std::int16_t>::const_iterator end,
                         const std::vector<std::int16_t>& expected) {
  const auto openingEnd = expected.begin() + 2 * (220 + 441 + 1);
  const auto start = std::search(from, end, expected.begin(), openingEnd);
  if (start == end) return "not found";
  const auto shorter = std::min<std::ptrdiff_t>(end - start, std::ssize(expected));
  const auto wrong = std::mismatch(start, start + shorter, expected.begin()).first;
  const std::ptrdiff_t at = wrong - start;
  const std::string where = "at frame " + std::to_string(at / 2);
  if (wrong == end) return where + ", where the recording ends";
  const auto zeros = std::find_if(wrong, end, [](std::int16_t sample) { return sample != 0; });
  if (zeros != wrong)
    return where + ", " + std::to_string((zeros - wrong) / 2) + " frames of silence";
  // The rest of the signal (50 frames at least), frames later than it should be.
  for (std::ptrdiff_t skip = 2; at + skip + 100 <= std::ssize(expected); skip += 2) {
    const auto rest = std::min(std::ssize(expected) - at - skip, end - wrong);
    if (std::equal(wrong, wrong + rest, expected.begin() + at + skip)) {
      return where + ", " + std::to_string(skip / 2) + " frames missing";
    }
  }
  return where;
}

// Finds each transmission in the recording in order, each one after the last
// one found: the recording is hundreds of seconds long.
Tally classify(const std::vector<std::int32_t>& statuses,
               const std::vector<std::int16_t>& recording) {
  Tally tally;
  auto from = recording.begin();
  for (int i = 0; i < static_cast<int>(statuses.size()); ++i) {
    const Light light = lightOf(i);
    const auto expected =
        nimbara::test::ledCommandSignal(4, light.red, light.green, light.blue, 0, light.time, 0);
    const auto found = std::search(from, recording.end(), expected.begin(), expected.end());
    const bool recorded = found != recording.end();
    if (recorded) from = found + static_cast<std::ptrdiff_t>(expected.size());
    if (statuses[i] != 0) {
      ++tally.reported;
      tally.reasons[nimbaraAudioStatusText(statuses[i])].push_back(i);
      if (recorded) ++tally.reportedButExact;
    } else if (recorded) {
      ++tally.exact;
    } else {
      tally.silent.push_back(i);
      tally.silentHow.push_back(howItDiffers(from, recording.end(), expected));
    }
  }
  return tally;
}

std::string numbered(const std::vector<int>& transmissions) {
  std::string text;
  for (std::size_t i = 0; i < transmissions.size() && i < 20; ++i) {
    text += (i > 0 ? ", #" : "#") + std::to_string(transmissions[i]);
  }
  if (transmissions.size() > 20) text += ", ...";
  return text;
}

void printTable(const std::string& title, const std::string& output, int count, double seconds,
                const Tally& tally) {
  std::printf("### %s (`%s`)\n\n", title.c_str(), output.c_str());
  std::printf("%d transmissions of 0.4 s in %.0f s.\n\n", count, seconds);
  std::printf("| bit-exact | reported failed | of those, recorded bit-exact | silent losses |\n");
  std::printf("|---:|---:|---:|---:|\n");
  std::printf("| %d | %d | %d | %zu |\n\n", tally.exact, tally.reported, tally.reportedButExact,
              tally.silent.size());
  for (const auto& [reason, transmissions] : tally.reasons) {
    std::printf("- reported %zu× \"%s\": %s\n", transmissions.size(), reason.c_str(),
                numbered(transmissions).c_str());
  }
  if (!tally.silent.empty()) {
    std::printf("- **lost silently**: %s\n", numbered(tally.silent).c_str());
    for (std::size_t i = 0; i < tally.silent.size() && i < 10; ++i) {
      std::printf("  - #%d differs %s\n", tally.silent[i], tally.silentHow[i].c_str());
    }
  }
  std::printf("\n");
}

int run(const std::string& output, const std::string& monitor, int count,
        const std::string& title) {
  nimbara::setLogSink({});
  nimbara::platform::setBackend(nimbara::platform::makeBackend(output));
  char name[] = "/tmp/nimbara-load.XXXXXX";
  const fs::path dir = mkdtemp(name);
  const fs::path file = dir / "monitor.raw";
  const pid_t parec = test_support::recordMonitor(monitor, file);
  if (parec == -1 || !fs::exists(file) || fs::file_size(file) == 0) {
    std::fprintf(stderr, "%s: could not record %s\n", title.c_str(), monitor.c_str());
    if (parec != -1) {
      kill(parec, SIGTERM);
      waitpid(parec, nullptr, 0);
    }
    fs::remove_all(dir);
    return 2;
  }
  const auto start = Clock::now();
  std::vector<std::int32_t> statuses;
  for (int i = 0; i < count; ++i) {
    const Light light = lightOf(i);
    statuses.push_back(
        executeFunction(createLightLedProtocol(light.red, light.green, light.blue, 0, light.time),
                        1, kSampleLen, nullptr));
  }
  nimbara::platform::waitUntilIdle();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  // The last transmission has reached the monitor once the recording has grown
  // past it by the monitor's latency.
  const std::uintmax_t played = fs::file_size(file);
  for (int i = 0; i < 1000 && fs::file_size(file) < played + kBytesPerSecond; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // polling parec's file
  }
  kill(parec, SIGTERM);
  waitpid(parec, nullptr, 0);
  const Tally tally = classify(statuses, test_support::readSamples(file));
  fs::remove_all(dir);
  printTable(title, output, count, seconds, tally);
  return tally.silent.empty() && tally.exact * 2 >= count ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || std::atoi(argv[3]) <= 0) {
    std::fprintf(stderr, "usage: %s OUTPUT MONITOR COUNT TITLE\n", argv[0]);
    return 2;
  }
  try {
    return run(argv[1], argv[2], std::atoi(argv[3]), argv[4]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[4], error.what());
    return 2;
  }
}
