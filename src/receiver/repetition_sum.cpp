#include "receiver/repetition_sum.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "receiver/frame_geometry.h"
#include "receiver/transmission.h"

namespace nimbara::receiver {
namespace {

// How far (samples at 44100 Hz) the second repetition may be from where the
// two readings put it: a 0-bit and more.
constexpr double kAlignSlack = 30;
// How far (samples at 44100 Hz) the sum's reading may begin and end from the
// first repetition's: a 0-bit (a run of 1-bits read with the other polarity
// begins one 0-bit late) with slack, and at the end a 1-bit read as a 0-bit.
constexpr double kStartSlack = 26;
constexpr double kEndSlack = 44;
// How much of the first repetition's power the second must show in the last
// quarter of the payload: a cut one does not count.
constexpr double kPresentTail = 0.25;
// How many clean 0-bits worse the sum's reading may fit each repetition
// alone than that repetition's own best reading.
constexpr double kAloneShortfall = 1.5;

double meanMagnitude(const std::vector<float>& x) {
  double sum = 0;
  for (float v : x) sum += std::fabs(v);
  return sum / static_cast<double>(std::max<std::size_t>(1, x.size()));
}

// The sum's reading, if it is a command read clearly where the first
// repetition lies: a reading that starts some bits late or ends some bits
// early fits another layout, not this frame (its second repetition would
// not begin one silence after it).
std::optional<Payload> fitting(std::optional<Payload> combined, const Payload& first,
                               double sampleRate) {
  const double scale = sampleRate / kReferenceRate;
  if (!combined || combined->confidence < kCombinedMargin ||
      assemble(*combined, &*combined, sampleRate).damaged ||
      std::fabs(combined->start - first.start) > kStartSlack * scale ||
      std::fabs(combined->end - first.end) > kEndSlack * scale) {
    return std::nullopt;
  }
  return combined;
}

}  // namespace

std::optional<Payload> readSum(PayloadDecoder& decoder, const Payload& first, const Payload& second,
                               double sampleRate) {
  if (first.wave.empty() || second.wave.empty()) return std::nullopt;
  const double scale = sampleRate / kReferenceRate;
  const float sign = first.polarity == second.polarity ? 1.0f : -1.0f;
  const auto expected = static_cast<std::ptrdiff_t>(std::llround(second.start - first.start)) -
                        (static_cast<std::ptrdiff_t>(second.waveStart) -
                         static_cast<std::ptrdiff_t>(first.waveStart));
  const auto slack = static_cast<std::ptrdiff_t>(std::llround(kAlignSlack * scale));
  const auto a = static_cast<std::ptrdiff_t>(first.wave.size());
  const auto b = static_cast<std::ptrdiff_t>(second.wave.size());
  std::ptrdiff_t bestShift = expected;
  double bestDot = -1e300;
  for (std::ptrdiff_t shift = expected - slack; shift <= expected + slack; ++shift) {
    double dot = 0;
    for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(0, -shift); i < a && i + shift < b; ++i) {
      dot += static_cast<double>(first.wave[i]) * second.wave[i + shift];
    }
    dot *= sign;
    if (dot > bestDot) bestDot = dot, bestShift = shift;
  }
  // The second repetition must be there for the whole payload.
  const auto p0 =
      static_cast<std::ptrdiff_t>(first.start) - static_cast<std::ptrdiff_t>(first.waveStart);
  const auto p1 =
      static_cast<std::ptrdiff_t>(first.end) - static_cast<std::ptrdiff_t>(first.waveStart);
  if (p0 < 0 || p1 > a || p0 + bestShift < 0 || p1 + bestShift > b) return std::nullopt;
  double tailFirst = 0, tailSecond = 0;
  for (std::ptrdiff_t i = p1 - (p1 - p0) / 4; i < p1; ++i) {
    tailFirst += static_cast<double>(first.wave[i]) * first.wave[i];
    tailSecond += static_cast<double>(second.wave[i + bestShift]) * second.wave[i + bestShift];
  }
  if (!(tailSecond >= kPresentTail * tailFirst)) return std::nullopt;
  std::vector<float> sum = first.wave;
  for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(0, -bestShift); i < a && i + bestShift < b;
       ++i) {
    sum[i] += sign * second.wave[i + bestShift];
  }
  // Read from about where the first repetition begins; if that reading
  // does not keep the frame's geometry, read again from exactly there.
  const double level = meanMagnitude(sum);
  auto combined = fitting(decoder.decode(sum, first.waveStart, first.start, first.end, level),
                          first, sampleRate);
  if (!combined) {
    combined = fitting(
        decoder.decode(sum, first.waveStart, first.start, first.end, level, kStartSlack * scale),
        first, sampleRate);
  }
  if (!combined) return std::nullopt;
  // Each repetition alone must bear the sum's reading out: noise costs it
  // a little, a repetition that carried other bits a lot.
  const auto alone = [&](const Payload& repetition, double start, int polarity) {
    return decoder.shortfall(repetition.wave, repetition.waveStart, start, polarity, combined->bits,
                             meanMagnitude(repetition.wave));
  };
  const double secondStart = combined->start - static_cast<double>(first.waveStart) +
                             static_cast<double>(bestShift) + static_cast<double>(second.waveStart);
  const double shortfalls[2] = {
      alone(first, combined->start, combined->polarity),
      alone(second, secondStart, sign > 0 ? combined->polarity : -combined->polarity)};
  if (std::max(shortfalls[0], shortfalls[1]) > kAloneShortfall) return std::nullopt;
  // Its place is the first repetition's.
  combined->inverted.reset();
  return combined;
}

}  // namespace nimbara::receiver
