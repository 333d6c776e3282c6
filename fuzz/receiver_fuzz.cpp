// The receiver fed arbitrary samples at an arbitrary rate, channel count and
// chunk size: it never crashes and never reports as a command a transmission
// whose parity failed or whose repetitions disagree.
#include <nimbara/receiver/receiver.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 8) return 0;
  std::uint32_t rateSeed;
  std::uint16_t chunkSeed;
  std::memcpy(&rateSeed, data, 4);
  std::memcpy(&chunkSeed, data + 4, 2);
  const double rate = 8000 + rateSeed % 184001;
  const int channels = 1 + data[6] % 2;
  const std::size_t chunk = 1 + chunkSeed % 4096;
  std::vector<std::int16_t> samples((size - 8) / 2);
  if (!samples.empty()) std::memcpy(samples.data(), data + 8, samples.size() * 2);
  const std::size_t frames = samples.size() / channels;

  nimbara::Receiver receiver(rate, channels);
  for (std::size_t at = 0; at < frames; at += chunk) {
    receiver.push(samples.data() + at * channels, std::min(chunk, frames - at));
  }
  receiver.finish();
  for (const nimbara::Transmission& t : receiver.take()) {
    const bool sound =
        t.parityOk[0] && t.parityOk[1] && t.repetitionsAgree && t.command != "unknown";
    if (!t.damaged && !sound) std::abort();
  }
  return 0;
}
