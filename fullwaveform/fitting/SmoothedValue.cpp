#include <fullwaveform/fitting/SmoothedValue.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {

SmoothingWeights smoothingAt(std::size_t count, double position) {
  constexpr double reach = 2.0;
  SmoothingWeights smoothing;
  if (count < smoothing.weights.size()) {
    return smoothing;
  }
  double const last = static_cast<double>(count) - 1.0;
  double const inside = std::clamp(position, 0.0, last);
  double const centre = std::clamp(std::round(inside), reach, last - reach);
  double const off = inside - centre;
  smoothing.first = static_cast<std::size_t>(centre - reach);
  for (std::size_t k = 0; k < smoothing.weights.size(); ++k) {
    double const x = static_cast<double>(k) - reach;
    double const middle = (17.0 - 5.0 * x * x) / 35.0;
    double const slope = x / 10.0;
    double const curvature = (x * x - 2.0) / 14.0;
    smoothing.weights[k] = middle + off * (slope + off * curvature);
  }
  return smoothing;
}

double smoothedAt(std::span<double const> values, double position) {
  SmoothingWeights const smoothing = smoothingAt(values.size(), position);
  double sum = 0.0;
  for (std::size_t k = 0; values.size() >= smoothing.weights.size() && k < smoothing.weights.size(); ++k) {
    sum += smoothing.weights[k] * values[smoothing.first + k];
  }
  return sum;
}

}  // namespace FullWaveform
