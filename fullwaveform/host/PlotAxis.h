#pragma once

#include <vector>

namespace OrvikPDF {

/// Both ends of an axis, low < high.
struct AxisRange {
  double low = 0.0;
  double high = 1.0;

  /// 0 at the low end, 1 at the high end.
  [[nodiscard]] double fractionOf(double value) const { return (value - low) / (high - low); }
};

/// A range that can be drawn. A range of (nearly) equal ends is widened by a tenth of their magnitude (0
/// becomes [-1, 1]), ends are limited to +-8e307, and a NaN gives [0, 1].
AxisRange drawableRange(double low, double high);

/// Multiples of 1, 2 or 5 times a power of ten inside a drawable range, ascending.
///
/// @param maxIntervals  upper limit of the number of intervals; 0 counts as 1, more than 50 as 50
std::vector<double> findTicks(AxisRange range, unsigned int maxIntervals);

}  // namespace OrvikPDF
