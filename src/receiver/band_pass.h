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
  void apply(std::vector<float>& x) const {
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (float& v : x) {
      const double y = b0_ * v + b1_ * x1 + b2_ * x2 - a1_ * y1 - a2_ * y2;
      x2 = x1, x1 = v, y2 = y1, y1 = y;
      v = static_cast<float>(y);
    }
  }

 private:
  double b0_, b1_, b2_, a1_, a2_;
};

class BandPass {
 public:
  explicit BandPass(double rate)
      : highPass_(rate, 700, true), lowPass_(rate, std::min(7500.0, 0.42 * rate), false) {}
  void apply(std::vector<float>& x) const {
    highPass_.apply(x);
    lowPass_.apply(x);
  }

 private:
  Biquad highPass_, lowPass_;
};

}  // namespace nimbara::receiver
