#include <fullwaveform/fitting/SmoothedValue.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace FullWaveform {

double smoothedAt(std::span<double const> values, double position) {
  constexpr double reach = 2.0;
  if (values.size() < 5) {
    return 0.0;
  }
  double const last = static_cast<double>(values.size()) - 1.0;
  double const inside = std::clamp(position, 0.0, last);
  double const centre = std::clamp(std::round(inside), reach, last - reach);
  double const* const y = values.data() + static_cast<std::ptrdiff_t>(centre);
  double const middle = (17.0 * y[0] + 12.0 * (y[-1] + y[1]) - 3.0 * (y[-2] + y[2])) / 35.0;
  double const slope = (y[1] - y[-1] + 2.0 * (y[2] - y[-2])) / 10.0;
  double const curvature = (2.0 * (y[-2] + y[2]) - (y[-1] + y[1]) - 2.0 * y[0]) / 14.0;
  double const off = inside - centre;
  return middle + off * (slope + off * curvature);
}

}  // namespace FullWaveform
