#include <fullwaveform/pulsefit/WidthPrior.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace FullWaveform {
namespace {

/// -2 ln erfc(z), and the ratio 2/sqrt(pi) exp(-z^2) / erfc(z) from which its derivatives follow.
struct Tail {
  double energy;
  double ratio;
};

Tail farTail(double z) {
  double const u = 1.0 / (2.0 * z * z);
  double const series = 1.0 - u * (1.0 - 3.0 * u * (1.0 - 5.0 * u * (1.0 - 7.0 * u)));
  return {2.0 * z * z + 2.0 * std::log(z) - 2.0 * std::log(series * std::numbers::inv_sqrtpi),
          2.0 * z / series};
}

/// Taylor series of the tail at equidistant nodes: a fit evaluates it for every step of every echo.
class TailTable {
 public:
  static constexpr double end = 6.0;  // beyond it the asymptotic series is exact to 1e-9

  TailTable() {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      double const z = (static_cast<double>(i) - nodesPerSide) / nodesPerUnit;
      double const tail = std::erfc(z);
      double const ratio = 2.0 * std::numbers::inv_sqrtpi * std::exp(-z * z) / tail;
      double const first = ratio * (ratio - 2.0 * z);
      double const second = 2.0 * (first * (ratio - z) - ratio);
      double const third = 2.0 * (first * (first - 2.0) + second * (ratio - z));
      nodes[i] = {-2.0 * std::log(tail), ratio, first, second / 2.0, third / 6.0};
    }
  }

  /// @param z  from -end to end
  [[nodiscard]] Tail at(double z) const {
    auto const index = static_cast<std::size_t>(z * nodesPerUnit + (nodesPerSide + 0.5));
    double const d = z - (static_cast<double>(index) - nodesPerSide) / nodesPerUnit;
    auto const& [energy, ratio, first, second, third] = nodes[index];
    return {energy + 2.0 * d * (ratio + d * (first / 2.0 + d * (second / 3.0 + d * third / 4.0))),
            ratio + d * (first + d * (second + d * third))};
  }

 private:
  static constexpr int nodesPerSide = 192;
  static constexpr double nodesPerUnit = nodesPerSide / end;

  std::array<std::array<double, 5>, 2 * nodesPerSide + 1> nodes{};
};

Tail tailAt(double z) {
  static TailTable const table;
  if (z > TailTable::end) {
    return farTail(z);
  }
  if (z < -TailTable::end) {
    return {-2.0 * std::numbers::ln2, 0.0};  // erfc is 2
  }
  return table.at(z);
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
