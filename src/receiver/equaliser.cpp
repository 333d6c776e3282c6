#include "receiver/equaliser.h"

#include <algorithm>
#include <cmath>

namespace nimbara::receiver {
namespace {

// A little ridge keeps the filter from amplifying what the band-pass left out.
constexpr double kRidge = 1e-3;
// The filter must take away at least this share of what a gain alone leaves.
constexpr double kWorthwhile = 0.25;

}  // namespace

Equaliser::Equaliser(int before, int after) : before_(before), after_(after) {}

bool Equaliser::learn(const float* received, const float* wanted, std::size_t count) {
  const int length = before_ + after_ + 1;
  if (count < static_cast<std::size_t>(4 * length)) return false;
  const auto n = static_cast<std::ptrdiff_t>(count);
  // The signal's autocorrelation (the normal equations are taken as
  // Toeplitz) and its correlation with what was wanted at each tap.
  std::vector<double> r(length, 0.0), p(length, 0.0);
  for (int lag = 0; lag < length; ++lag) {
    double sum = 0;
    for (std::ptrdiff_t i = lag; i < n; ++i)
      sum += static_cast<double>(received[i]) * received[i - lag];
    r[lag] = sum;
  }
  double wantedPower = 0, gainDot = 0;
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    wantedPower += static_cast<double>(wanted[i]) * wanted[i];
    gainDot += static_cast<double>(received[i]) * wanted[i];
  }
  for (int j = 0; j < length; ++j) {
    double sum = 0;
    const std::ptrdiff_t shift = before_ - j;
    for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(0, -shift); i < n && i + shift < n; ++i) {
      sum += static_cast<double>(received[i + shift]) * wanted[i];
    }
    p[j] = sum;
  }
  if (!(r[0] > 0) || !(wantedPower > 0)) return false;

  // Cholesky of the ridged Toeplitz matrix.
  std::vector<double> l(static_cast<std::size_t>(length) * length, 0.0);
  const auto at = [length](int i, int j) { return static_cast<std::size_t>(i) * length + j; };
  for (int i = 0; i < length; ++i) {
    for (int j = 0; j <= i; ++j) {
      double sum = r[i - j] + (i == j ? kRidge * r[0] : 0.0);
      for (int k = 0; k < j; ++k) sum -= l[at(i, k)] * l[at(j, k)];
      if (i == j) {
        if (!(sum > 0)) return false;
        l[at(i, i)] = std::sqrt(sum);
      } else {
        l[at(i, j)] = sum / l[at(j, j)];
      }
    }
  }
  std::vector<double> g(length);
  for (int i = 0; i < length; ++i) {
    double sum = p[i];
    for (int k = 0; k < i; ++k) sum -= l[at(i, k)] * g[k];
    g[i] = sum / l[at(i, i)];
  }
  for (int i = length - 1; i >= 0; --i) {
    double sum = g[i];
    for (int k = i + 1; k < length; ++k) sum -= l[at(k, i)] * g[k];
    g[i] = sum / l[at(i, i)];
  }

  // What is left with the filter, against what a gain alone leaves.
  double explained = 0;
  for (int j = 0; j < length; ++j) explained += g[j] * p[j];
  const double gainOnly = wantedPower - gainDot * gainDot / r[0];
  const double filtered = wantedPower - explained;
  if (!(filtered < (1 - kWorthwhile) * gainOnly)) return false;
  taps_ = std::move(g);
  return true;
}

void Equaliser::apply(std::vector<float>& x) const {
  if (taps_.empty()) return;
  const auto n = static_cast<std::ptrdiff_t>(x.size());
  const int length = static_cast<int>(taps_.size());
  std::vector<float> y(x.size());
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    double sum = 0;
    for (int j = 0; j < length; ++j) {
      const std::ptrdiff_t k = i + before_ - j;
      if (k >= 0 && k < n) sum += taps_[j] * x[k];
    }
    y[i] = static_cast<float>(sum);
  }
  x = std::move(y);
}

std::vector<float> cleanSignal(const std::string& bits, int polarity, double start,
                               std::size_t count, double scale) {
  std::vector<float> clean(count, 0.0f);
  const double unit = 20 * scale;  // a 0-bit
  const auto size = static_cast<std::ptrdiff_t>(count);
  for (char bit : bits) {
    const double length = unit * (bit == '1' ? 2 : 1);
    for (auto i = static_cast<std::ptrdiff_t>(std::ceil(std::max(0.0, start)));
         i < size && i < start + length; ++i) {
      clean[i] = static_cast<float>(polarity * (i < start + length / 2 ? 1 : -1));
    }
    start += length;
  }
  return clean;
}

}  // namespace nimbara::receiver
