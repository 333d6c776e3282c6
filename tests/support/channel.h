// A simulated analogue path between the headphone jack and a receiver:
// gain, polarity, DC offset, resampling, filters, clock error and noise,
// applied to mono float signals.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace nimbara::test {

using Signal = std::vector<float>;

// The left channel of interleaved 16-bit stereo, as floats in -1..1.
inline Signal leftChannel(const std::vector<std::int16_t>& stereo) {
  Signal mono;
  for (std::size_t i = 0; i < stereo.size(); i += 2) mono.push_back(stereo[i] / 32768.0f);
  return mono;
}

inline Signal withSilence(Signal signal, std::size_t before, std::size_t after) {
  signal.insert(signal.begin(), before, 0.0f);
  signal.insert(signal.end(), after, 0.0f);
  return signal;
}

inline Signal gain(Signal s, double decibels) {
  const auto factor = static_cast<float>(std::pow(10.0, decibels / 20));
  for (float& x : s) x *= factor;
  return s;
}

inline Signal invert(Signal s) {
  for (float& x : s) x = -x;
  return s;
}

inline Signal offset(Signal s, float dc) {
  for (float& x : s) x += dc;
  return s;
}

// Resamples by linear interpolation: `ratio` output samples per input sample.
inline Signal resample(const Signal& s, double ratio) {
  Signal out;
  const auto n = static_cast<std::size_t>((s.size() - 1) * ratio);
  for (std::size_t i = 0; i < n; ++i) {
    const double at = i / ratio;
    const auto k = static_cast<std::size_t>(at);
    const double frac = at - k;
    out.push_back(static_cast<float>(s[k] * (1 - frac) + s[k + 1] * frac));
  }
  return out;
}

// A second-order Butterworth section (the audio cookbook's formulas).
inline Signal biquad(const Signal& s, double rate, double cutoff, bool highPass) {
  const double w = 2 * M_PI * cutoff / rate, c = std::cos(w), alpha = std::sin(w) / std::sqrt(2.0);
  const double b0 = highPass ? (1 + c) / 2 : (1 - c) / 2, b1 = highPass ? -(1 + c) : 1 - c;
  const double a0 = 1 + alpha, a1 = -2 * c, a2 = 1 - alpha;
  double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  Signal out;
  for (float x : s) {
    const double y = (b0 * x + b1 * x1 + b0 * x2 - a1 * y1 - a2 * y2) / a0;
    x2 = x1, x1 = x, y2 = y1, y1 = y;
    out.push_back(static_cast<float>(y));
  }
  return out;
}

// White Gaussian noise at a signal-to-noise ratio, for a square wave of
// amplitude `amplitude` (whose power is amplitude squared).
inline Signal noise(Signal s, double snrDecibels, float amplitude, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> gauss(
      0.0f, amplitude * static_cast<float>(std::pow(10.0, -snrDecibels / 20)));
  for (float& x : s) x += gauss(random);
  return s;
}

}  // namespace nimbara::test
