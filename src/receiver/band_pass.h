// The band the accessory's two waveforms live in (about 700 to 7500 Hz):
// below it are hum, rumble and most of speech and music, above it only noise.
#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace nimbara::receiver {

// A second-order Butterworth section (the audio cookbook's formulas).
class Biquad {
 public:
  Biquad(double rate, double cutoff, bool highPass) {
    const double w = 2 * std::numbers::pi * cutoff / rate, c = std::cos(w);
    const double alpha = std::sin(w) / std::sqrt(2.0), a0 = 1 + alpha;
    b0_ = (highPass ? (1 + c) / 2 : (1 - c) / 2) / a0;
    b1_ = (highPass ? -(1 + c) : 1 - c) / a0;
    b2_ = b0_;
    a1_ = -2 * c / a0;
    a2_ = (1 - alpha) / a0;
  }
  struct State {
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  };
  float step(State& s, float v) const {
    const double y = b0_ * v + b1_ * s.x1 + b2_ * s.x2 - a1_ * s.y1 - a2_ * s.y2;
    s.x2 = s.x1, s.x1 = v, s.y2 = s.y1, s.y1 = y;
    return static_cast<float>(y);
  }
  void apply(std::vector<float>& x) const {
    State s;
    for (float& v : x) v = step(s, v);
  }

 private:
  double b0_, b1_, b2_, a1_, a2_;
};

class BandPass {
 public:
  explicit BandPass(double rate)
      : highPass_(rate, 700, true), lowPass_(rate, std::min(7500.0, 0.42 * rate), false) {}
  // Both sections in one pass, the second a sample behind the first: the
  // same arithmetic as one after the other, but the two recursions overlap.
  void apply(std::vector<float>& x) const {
    Biquad::State high, low;
    for (float& v : x) v = lowPass_.step(low, highPass_.step(high, v));
  }

 private:
  Biquad highPass_, lowPass_;
};

}  // namespace nimbara::receiver
