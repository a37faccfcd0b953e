#include <fullwaveform/host/PlotPage.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <mutex>
#include <numbers>
#include <vector>

#include <fullwaveform/host/PlotText.h>

namespace OrvikPDF {
namespace {

// All lengths in points, 1/72 inch.
constexpr double pointsPerMillimetre = 72.0 / 25.4;
constexpr double border = 10.0;
constexpr double gap = 5.0;
constexpr double tickLength = 4.0;
constexpr double tickGap = 3.0;  // between a tick and its label
constexpr double titleSize = 12.0;
constexpr double labelSize = 10.0;
constexpr double tickSize = 9.0;
constexpr double raisedSize = 7.0;
constexpr double lineHeight = 1.3;     // times the size of the letters
constexpr double letterHeight = 0.72;  // of capitals and digits, times the size
constexpr double legendKey = 26.0;     // length of the piece of line
constexpr double legendSpacing = 16.0;
constexpr double thinLine = 0.6;
constexpr double markRadius = 1.7;

/// The frame of the plot on the page.
struct Frame {
  double left = 0.0;
  double top = 0.0;
  double right = 0.0;
  double bottom = 0.0;

  [[nodiscard]] double width() const { return right - left; }
  [[nodiscard]] double height() const { return bottom - top; }
  [[nodiscard]] FramePoint onPage(FramePoint point) const {
    return {left + point.x * width(), bottom - point.y * height()};
  }
};

double widestOf(PlotBrush const& brush, std::vector<std::string> const& labels) {
  double widest = 0.0;
  for (std::string const& label : labels) {
    widest = std::max(widest, brush.widthOf(label, tickSize));
  }
  return widest;
}

/// Ticks whose labels do not run into each other along `length` points.
AxisTicks ticksThatFit(PlotBrush const& brush, PlotAxis const& axis, double length) {
  unsigned int most = std::max(axis.mostIntervals, 1U);
  while (true) {
    AxisTicks ticks = findTicks(axis.range, most);
    double const wanted =
        (widestOf(brush, ticks.labels) + tickSize) * static_cast<double>(ticks.labels.size());
    if (wanted <= length || most == 1) {
      return ticks;
    }
    most = most > 8 ? most * 3 / 4 : most - 1;
  }
}

/// One entry per curve, in rows no wider than `room`.
class Legend {
 public:
  Legend(PlotBrush const& brush, std::span<PlotSeries const> series, double room) {
    for (std::size_t i = 0; i < series.size(); ++i) {
      std::string const name = series[i].name.empty() ? std::to_string(i + 1) : drawableText(series[i].name);
      double const width = legendKey + gap + brush.widthOf(name, tickSize);
      if (rows.empty() || end + legendSpacing + width > room) {
        rows.emplace_back();
        end = -legendSpacing;
      }
      rows.back().push_back({i, name, end + legendSpacing});
      end += legendSpacing + width;
    }
  }

  [[nodiscard]] double height() const { return static_cast<double>(rows.size()) * tickSize * lineHeight; }

  void draw(PlotBrush& brush, double left, double top) const {
    double baseline = top + tickSize;
    for (auto const& row : rows) {
      for (Entry const& entry : row) {
        double const x = left + entry.offset;
        double const y = baseline - 0.5 * letterHeight * tickSize;
        brush.useCurve(entry.curve);
        brush.line(std::array{FramePoint{x, y}, FramePoint{x + legendKey, y}});
        brush.useInk(thinLine);
        brush.write(x + legendKey + gap, baseline, entry.name, tickSize);
      }
      baseline += tickSize * lineHeight;
    }
  }

 private:
  struct Entry {
    std::size_t curve;
    std::string name;
    double offset;
  };

  std::vector<std::vector<Entry>> rows;
  double end = 0.0;
};

/// Curves are listed when there are several, or a name.
std::span<PlotSeries const> listedSeries(std::span<PlotSeries const> series) {
  bool const named =
      std::any_of(series.begin(), series.end(), [](PlotSeries const& one) { return !one.name.empty(); });
  return named || series.size() > 1 ? series : std::span<PlotSeries const>();
}

void drawTitle(PlotBrush& brush, std::string const& title, double centre, double room) {
  brush.useInk(thinLine);
  brush.useBoldLetters(true);
  double const size = titleSize * std::min(1.0, room / std::max(brush.widthOf(title, titleSize), 1.0));
  brush.write(centre - 0.5 * brush.widthOf(title, size), border + letterHeight * titleSize, title, size);
  brush.useBoldLetters(false);
}

/// A grid line from the frame's lower or left edge, and the tick outside it.
void drawTick(PlotBrush& brush, FramePoint edge, FramePoint opposite, FramePoint outside) {
  brush.useGrey(thinLine);
  brush.line(std::array{edge, opposite});
  brush.useInk(thinLine);
  brush.line(std::array{edge, outside});
}

void drawXTicks(PlotBrush& brush, AxisTicks const& ticks, AxisRange range, Frame const& frame) {
  double const baseline = frame.bottom + tickLength + tickGap + letterHeight * tickSize;
  for (std::size_t i = 0; i < ticks.positions.size(); ++i) {
    double const x = frame.onPage({placeInRange(ticks.positions[i], range), 0.0}).x;
    drawTick(brush, {x, frame.bottom}, {x, frame.top}, {x, frame.bottom + tickLength});
    brush.write(x - 0.5 * brush.widthOf(ticks.labels[i], tickSize), baseline, ticks.labels[i], tickSize);
  }
}

void drawYTicks(PlotBrush& brush, AxisTicks const& ticks, AxisRange range, Frame const& frame) {
  double const end = frame.left - tickLength - tickGap;
  for (std::size_t i = 0; i < ticks.positions.size(); ++i) {
    double const y = frame.onPage({0.0, placeInRange(ticks.positions[i], range)}).y;
    drawTick(brush, {frame.left, y}, {frame.right, y}, {frame.left - tickLength, y});
    brush.write(end - brush.widthOf(ticks.labels[i], tickSize), y + 0.5 * letterHeight * tickSize,
                ticks.labels[i], tickSize);
  }
}

/// An axis label with what was taken out of the tick labels, centred at `centre`, no longer than `room`.
void drawLabel(PlotBrush& brush, std::string const& label, AxisTicks const& ticks, FramePoint centre,
               double angle, double room) {
  std::string const times = ticks.exponent == 0 ? "" : "  \u00D710";
  std::string const power = ticks.exponent == 0 ? "" : std::to_string(ticks.exponent);
  std::string const offset = ticks.offset.empty() ? "" : "  + " + ticks.offset;
  double const width = brush.widthOf(label + times, labelSize) + brush.widthOf(power, raisedSize) +
                       brush.widthOf(offset, labelSize);
  brush.useInk(thinLine);
  brush.pushPlace(centre, angle, std::min(1.0, room / std::max(width, 1.0)));
  double x = -0.5 * width;
  x += brush.write(x, 0.0, label + times, labelSize);
  x += brush.write(x, -0.4 * labelSize, power, raisedSize);
  brush.write(x, 0.0, offset, labelSize);
  brush.popPlace();
}

void drawCurves(PlotBrush& brush, PlotPage const& page, Frame const& frame) {
  for (std::size_t i = 0; i < page.series.size(); ++i) {
    VisibleCurve curve = cutToFrame(page.series[i].x, page.series[i].y, page.x.range, page.y.range);
    brush.useCurve(i);
    for (std::vector<FramePoint>& line : curve.lines) {
      std::transform(line.begin(), line.end(), line.begin(),
                     [&](FramePoint point) { return frame.onPage(point); });
      brush.line(line);
    }
    for (FramePoint const point : page.marks ? curve.points : curve.singles) {
      brush.dot(frame.onPage(point), markRadius);
    }
  }
}

void draw(PlotBrush& brush, PlotPage const& page, double width, double height) {
  AxisTicks const yTicks = findTicks(page.y.range, page.y.mostIntervals);
  double const legendTop = border + titleSize * lineHeight;
  Frame frame;
  frame.left = border + labelSize * lineHeight + gap + widestOf(brush, yTicks.labels) + tickGap + tickLength;
  frame.right = width - border - 2.0 * tickSize;
  Legend const legend(brush, listedSeries(page.series), frame.width());
  frame.top = legendTop + legend.height() + gap;
  frame.bottom = height - border - labelSize * lineHeight - gap - tickSize * lineHeight - tickLength;
  AxisTicks const xTicks = ticksThatFit(brush, page.x, frame.width());

  FramePoint const middle = frame.onPage({0.5, 0.5});
  drawTitle(brush, drawableText(page.title), middle.x, frame.width());
  legend.draw(brush, frame.left, legendTop);
  drawXTicks(brush, xTicks, page.x.range, frame);
  drawYTicks(brush, yTicks, page.y.range, frame);
  brush.rectangle({frame.left, frame.top}, {frame.right, frame.bottom});
  drawLabel(brush, drawableText(page.x.label), xTicks, {middle.x, height - border}, 0.0, frame.width());
  drawLabel(brush, drawableText(page.y.label), yTicks, {border + letterHeight * labelSize, middle.y},
            -0.5 * std::numbers::pi, frame.height());
  drawCurves(brush, page, frame);
}

}  // namespace

RenderedPage renderPdf(PlotPage const& page) {
  // One page at a time: Cairo dates its pages by the process's time zone and shares the caches of Fontconfig.
  static std::mutex drawing;
  std::scoped_lock const lock(drawing);
  double const width = (page.fullPage ? 297.0 : 180.0) * pointsPerMillimetre;
  double const height = (page.fullPage ? 210.0 : 110.0) * pointsPerMillimetre;
  PlotBrush brush(width, height, drawableText(page.title));
  draw(brush, page, width, height);
  return brush.finish();
}

}  // namespace OrvikPDF
