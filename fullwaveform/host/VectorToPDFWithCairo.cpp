#include <fullwaveform/host/VectorToPDF.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <mutex>
#include <numbers>
#include <span>

#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/PdfCanvas.h>
#include <fullwaveform/host/PlotAxis.h>
#include <fullwaveform/text/Number.h>

namespace OrvikPDF {
namespace {

// Lengths in points, 1/72 inch.
constexpr PagePoint pageSize{180.0 * 72.0 / 25.4, 110.0 * 72.0 / 25.4};
constexpr double titleSize = 12.0;
constexpr double labelSize = 10.0;
constexpr double tickSize = 9.0;
constexpr double tickLength = 4.0;
constexpr double gap = 5.0;
constexpr double halfLetter = 3.2;  // half the height of a digit at tickSize
constexpr double markRadius = 1.7;
constexpr Pen ink{0.1, 0.1, 0.1, 0.6};
constexpr Pen grid{0.85, 0.85, 0.85, 0.6};
constexpr Pen curve{0.0, 0.447, 0.698, 1.1};

struct Axis {
  std::string label;
  AxisRange range;
  std::vector<double> ticks;
};

/// The rectangle on the page in which the values are drawn.
struct Frame {
  double left, top, right, bottom;

  [[nodiscard]] double x(double fraction) const { return left + fraction * (right - left); }
  [[nodiscard]] double y(double fraction) const { return bottom - fraction * (bottom - top); }
};

AxisRange finiteRange(std::span<double const> values) {
  double low = std::numeric_limits<double>::infinity();
  double high = -low;
  for (double const value : values) {
    if (std::isfinite(value)) {
      low = std::min(low, value);
      high = std::max(high, value);
    }
  }
  return low > high ? AxisRange() : drawableRange(low, high);
}

/// @param margin  added on both sides, as a fraction of the range
Axis axisOf(std::string const& label, VectorToPDF::Range const& given, std::span<double const> values,
            double margin, unsigned int maxIntervals) {
  bool const isUsable = given && std::isfinite(given->minimum()) && std::isfinite(given->maximum());
  AxisRange range = isUsable ? drawableRange(given->minimum(), given->maximum()) : finiteRange(values);
  double const added = margin * (range.high - range.low);
  range = {range.low - added, range.high + added};
  return {label, range, findTicks(range, maxIntervals)};
}

/// Leaves room for the tick labels at the left, and for the name above.
Frame frameFor(std::vector<double> const& yTicks, bool hasName) {
  std::size_t longest = 0;
  for (double const tick : yTicks) {
    longest = std::max(longest, FullWaveform::shortestText(tick).size());
  }
  double const labelWidth = 0.64 * tickSize * static_cast<double>(longest);
  return {36.0 + labelWidth, hasName ? 42.0 : 31.0, pageSize.x - 28.0, pageSize.y - 44.0};
}

void drawXAxis(PdfCanvas& canvas, Axis const& axis, Frame const& frame) {
  for (double const tick : axis.ticks) {
    double const x = frame.x(axis.range.fractionOf(tick));
    canvas.line(std::array{PagePoint{x, frame.top}, PagePoint{x, frame.bottom}}, grid);
    canvas.line(std::array{PagePoint{x, frame.bottom}, PagePoint{x, frame.bottom + tickLength}}, ink);
    canvas.write(FullWaveform::shortestText(tick), tickSize,
                 {x, frame.bottom + tickLength + gap + 2.0 * halfLetter}, Align::Centre);
  }
  canvas.write(axis.label, labelSize, {frame.x(0.5), pageSize.y - 10.0}, Align::Centre);
}

void drawYAxis(PdfCanvas& canvas, Axis const& axis, Frame const& frame) {
  for (double const tick : axis.ticks) {
    double const y = frame.y(axis.range.fractionOf(tick));
    canvas.line(std::array{PagePoint{frame.right, y}, PagePoint{frame.left, y}}, grid);
    canvas.line(std::array{PagePoint{frame.left, y}, PagePoint{frame.left - tickLength, y}}, ink);
    canvas.write(FullWaveform::shortestText(tick), tickSize, {frame.left - tickLength - gap, y + halfLetter},
                 Align::Right);
  }
  canvas.write(axis.label, labelSize, {18.0, frame.y(0.5)}, Align::Centre, false, -0.5 * std::numbers::pi);
}

void drawFrame(PdfCanvas& canvas, Frame const& frame, std::string const& title, std::string const& name) {
  canvas.line(std::array{PagePoint{frame.left, frame.top}, PagePoint{frame.right, frame.top},
                         PagePoint{frame.right, frame.bottom}, PagePoint{frame.left, frame.bottom},
                         PagePoint{frame.left, frame.top}},
              ink);
  canvas.write(title, titleSize, {frame.x(0.5), 18.0}, Align::Centre, true);
  if (!name.empty()) {
    double const y = frame.top - gap - halfLetter;
    canvas.line(std::array{PagePoint{frame.left, y}, PagePoint{frame.left + 26.0, y}}, curve);
    canvas.write(name, tickSize, {frame.left + 26.0 + gap, y + halfLetter}, Align::Left);
  }
}

/// Draws a line through consecutive values; a value without neighbours is always marked.
void drawRun(PdfCanvas& canvas, std::vector<PagePoint>& run, bool marks) {
  canvas.line(run, curve);
  if (marks || run.size() == 1) {
    for (PagePoint const& point : run) {
      canvas.dot(point, markRadius, curve);
    }
  }
  run.clear();
}

/// Values that are not finite or outside a given range interrupt the line.
void drawCurve(PdfCanvas& canvas, std::span<double const> x, std::span<double const> y, Axis const& xAxis,
               Axis const& yAxis, Frame const& frame, bool marks) {
  auto const isInside = [](double fraction) { return fraction >= 0.0 && fraction <= 1.0; };
  std::vector<PagePoint> run;
  for (std::size_t i = 0; i < x.size(); ++i) {
    double const right = xAxis.range.fractionOf(x[i]);
    double const up = yAxis.range.fractionOf(y[i]);
    if (isInside(right) && isInside(up)) {
      run.push_back({frame.x(right), frame.y(up)});
    } else {
      drawRun(canvas, run, marks);
    }
  }
  drawRun(canvas, run, marks);
}

}  // namespace

std::string VectorToPDF::write2Pdf(bool) const {
  // One document at a time: Cairo reads the process's time zone and shares Fontconfig's caches.
  static std::mutex drawing;
  std::scoped_lock const lock(drawing);
  constexpr double yMargin = 0.05;  // keeps the extremes of the curve off the frame
  PdfCanvas canvas(pageSize, title);
  std::vector<Series> const empty(1);
  for (Series const& shown : series.empty() ? empty : series) {
    Axis const xAxis = axisOf(axisLabels.first, ranges.first, shown.x, 0.0, maxIntervals.first);
    Axis const yAxis = axisOf(axisLabels.second, ranges.second, shown.y, yMargin, maxIntervals.second);
    Frame const frame = frameFor(yAxis.ticks, !shown.name.empty());
    drawXAxis(canvas, xAxis, frame);
    drawYAxis(canvas, yAxis, frame);
    drawFrame(canvas, frame, title, shown.name);
    drawCurve(canvas, shown.x, shown.y, xAxis, yAxis, frame, marks);
    canvas.finishPage();
  }
  std::string const error = canvas.save(file);
  return error.empty() ? "" : "VectorToPDF::write2Pdf: cannot write " + file + ": " + error;
}

}  // namespace OrvikPDF
