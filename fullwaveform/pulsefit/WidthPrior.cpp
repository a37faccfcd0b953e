#include <fullwaveform/pulsefit/WidthPrior.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace FullWaveform {
namespace {

/// -2 ln erfc(z), and the ratio 2/sqrt(pi) exp(-z^2) / erfc(z) from which its derivatives follow.
struct Tail {
  double energy;
  double ratio;
};

Tail tailAt(double z) {
  constexpr double asymptotic = 6.0;  // beyond it the series is exact to 1e-9
  if (z < asymptotic) {
    double const tail = std::erfc(z);
    return {-2.0 * std::log(tail), 2.0 * std::numbers::inv_sqrtpi * std::exp(-z * z) / tail};
  }
  double const u = 1.0 / (2.0 * z * z);
  double const series = 1.0 - u * (1.0 - 3.0 * u * (1.0 - 5.0 * u * (1.0 - 7.0 * u)));
  return {2.0 * z * z + 2.0 * std::log(z) - 2.0 * std::log(series * std::numbers::inv_sqrtpi),
          2.0 * z / series};
}

}  // namespace

WidthPrior::WidthPrior(double spread, double widening)
    : spread(spread), widening(std::max(widening, 1e-3 * spread)) {
  atZero = unnormalised(0.0).value;
}

WidthPrior WidthPrior::ofSeveral(double spread, double widening) {
  return {std::hypot(spread, 0.4 * widening), 3.0 * widening};
}

WidthPrior::Energy WidthPrior::at(double variance) const {
  Energy energy = unnormalised(variance);
  energy.value -= atZero;
  return energy;
}

WidthPrior::Energy WidthPrior::unnormalised(double variance) const {
  double const z = (spread / widening - variance / spread) / std::numbers::sqrt2;
  Tail const tail = tailAt(z);
  return {2.0 * variance / widening - spread * spread / (widening * widening) + tail.energy,
          2.0 / widening - std::numbers::sqrt2 * tail.ratio / spread,
          std::max(tail.ratio * (tail.ratio - 2.0 * z), 0.0) / (spread * spread)};
}

}  // namespace FullWaveform
