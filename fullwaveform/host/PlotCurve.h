#pragma once

#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/PlotTicks.h>

namespace OrvikPDF {

/// A place inside a plot's frame: (0, 0) is its lower left corner, (1, 1) its upper right one.
struct FramePoint {
  double x;
  double y;
};

/// What of a series lies inside a frame.
struct VisibleCurve {
  std::vector<std::vector<FramePoint>> lines;  ///< connected stretches, two points or more
  std::vector<FramePoint> points;              ///< every value inside the frame
  std::vector<FramePoint> singles;             ///< those without a neighbour to be connected with
};

/// Cuts a series to a frame.
///
/// A value that is not finite interrupts the line; a line that leaves the frame ends at its border.
/// @param x, y  of equal length; what one has more than the other is left out
FULLWAVEFORM_EXPORT VisibleCurve cutToFrame(std::span<double const> x, std::span<double const> y,
                                            AxisRange xRange, AxisRange yRange);

}  // namespace OrvikPDF
