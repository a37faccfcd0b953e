#include <fullwaveform/host/PlotAxis.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace OrvikPDF {
namespace {

/// count * 10^power, correctly rounded as long as 10^|power| is exact, so that labels are short.
double scaled(double count, int power) {
  return power < 0 ? count / std::pow(10.0, -power) : count * std::pow(10.0, power);
}

}  // namespace

AxisRange drawableRange(double low, double high) {
  constexpr double maxEnd = 8e307;  // the difference of two such ends plus a margin is finite
  constexpr double minExtent = 1e-290;
  constexpr double minRelativeExtent = 1e-14;  // about fifty units in the last place
  if (std::isnan(low) || std::isnan(high)) {
    return {};
  }
  low = std::clamp(low, -maxEnd, maxEnd);
  high = std::clamp(high, -maxEnd, maxEnd);
  double const magnitude = std::max(std::abs(low), std::abs(high));
  if (std::abs(high - low) >= std::max(minRelativeExtent * magnitude, minExtent)) {
    return {std::min(low, high), std::max(low, high)};
  }
  double const margin = magnitude < minExtent ? 1.0 : std::max(0.1 * magnitude, minExtent);
  return {low - margin, high + margin};
}

std::vector<double> findTicks(AxisRange range, unsigned int maxIntervals) {
  constexpr double tolerance = 1e-9;  // fraction of a step by which a tick may miss the range by rounding
  double const minStep = (range.high - range.low) / std::clamp(maxIntervals, 1U, 50U);
  int const power = static_cast<int>(std::floor(std::log10(minStep)));
  double factor = 1.0;
  for (double const next : {2.0, 5.0, 10.0}) {
    factor = scaled(factor, power) < minStep * (1.0 - tolerance) ? next : factor;
  }
  double const step = scaled(factor, power);
  auto const first = static_cast<std::int64_t>(std::ceil(range.low / step - tolerance));
  auto const last = static_cast<std::int64_t>(std::floor(range.high / step + tolerance));
  std::vector<double> ticks;
  for (std::int64_t i = first; i <= last; ++i) {
    ticks.push_back(scaled(static_cast<double>(i) * factor, power));
  }
  return ticks;
}

}  // namespace OrvikPDF
