#pragma once

#include <string>
#include <vector>

#include <fullwaveform/Export.h>

namespace OrvikPDF {

/// Both ends of an axis, low < high.
struct AxisRange {
  double low = 0.0;
  double high = 1.0;
};

/// A range that can be drawn: ends in order, finite, and apart from each other.
///
/// Equal ends, or ends that double precision hardly tells apart, are moved apart by a tenth of their size (0
/// becomes [-1, 1]). Ends beyond 8e307 are brought back to it; an end that is not a number gives [0, 1].
FULLWAVEFORM_EXPORT AxisRange drawableRange(double low, double high);

/// The range with a margin on both sides, as a fraction of its extent.
FULLWAVEFORM_EXPORT AxisRange withMargin(AxisRange range, double fraction);

/// Where a value lies in a range: 0 at its low end, 1 at its high one.
FULLWAVEFORM_EXPORT double placeInRange(double value, AxisRange range);

/// Where an axis is marked.
struct AxisTicks {
  std::vector<double> positions;    ///< ascending multiples of 1, 2 or 5 times a power of ten
  std::vector<std::string> labels;  ///< decimal text of (position - offset) / 10^exponent, as many
  int exponent = 0;                 ///< 0, or a multiple of 3 that keeps the labels short
  std::string offset;               ///< decimal text; empty unless the range is far from 0 for its extent
};

/// Marks at round values inside a drawable range, at most `mostIntervals` intervals (0 counts as 1, and no
/// more than 50 are made).
FULLWAVEFORM_EXPORT AxisTicks findTicks(AxisRange range, unsigned int mostIntervals);

}  // namespace OrvikPDF
