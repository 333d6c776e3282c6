// Short reflections (a phone on a table, a small room) smear each bit into
// the next, and a reading of the bits goes wrong where they overlap most.
// A first reading, even with a few wrong bits, says what the clean signal
// was; the short filter that best turns what was received into that clean
// signal undoes most of the smear, and the filtered signal reads again.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace nimbara::receiver {

class Equaliser {
 public:
  // Taps reach `before` samples ahead and `after` samples back.
  Equaliser(int before, int after);

  // Fits the filter that maps `received` onto `wanted` (both `count`
  // samples). Returns false when it would not bring them much closer.
  bool learn(const float* received, const float* wanted, std::size_t count);
  // Filters x (the whole stretch the fit came from, or more) in place.
  void apply(std::vector<float>& x) const;

 private:
  const int before_, after_;
  std::vector<double> taps_;  // taps_[j] weighs x[n + before - j]
};

// The clean signal of `bits` (0-bits of 20 samples at 44100 Hz, 1-bits of
// 40, each half high then half low, inverted for a negative polarity) from
// sample `start` of a stretch of `count` samples; zero elsewhere.
std::vector<float> cleanSignal(const std::string& bits, int polarity, double start,
                               std::size_t count, double scale);

}  // namespace nimbara::receiver
