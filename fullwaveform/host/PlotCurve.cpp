#include <fullwaveform/host/PlotCurve.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>
#include <utility>

namespace OrvikPDF {
namespace {

/// Far outside the frame, and still small enough to compute with.
constexpr double farAway = 1e12;

double inFrame(double value, AxisRange range) {
  return std::clamp(placeInRange(value, range), -farAway, farAway);
}

bool isInside(FramePoint point) {
  return point.x >= 0.0 && point.x <= 1.0 && point.y >= 0.0 && point.y <= 1.0;
}

/// Narrows the part [from, to] of a segment to where start + t * change lies in [0, 1].
void narrow(double start, double change, double& from, double& to) {
  if (change == 0.0) {
    if (start < 0.0 || start > 1.0) {
      to = -1.0;
    }
    return;
  }
  auto const [enters, leaves] = std::minmax({-start / change, (1.0 - start) / change});
  from = std::max(from, enters);
  to = std::min(to, leaves);
}

/// The part of a segment inside the frame (Liang & Barsky 1984, doi:10.1145/357332.357333).
std::optional<std::pair<FramePoint, FramePoint>> cutSegment(FramePoint a, FramePoint b) {
  double from = 0.0;
  double to = 1.0;
  narrow(a.x, b.x - a.x, from, to);
  narrow(a.y, b.y - a.y, from, to);
  if (from > to) {
    return std::nullopt;
  }
  auto const at = [&](double t) { return FramePoint{a.x + t * (b.x - a.x), a.y + t * (b.y - a.y)}; };
  return std::pair{from == 0.0 ? a : at(from), to == 1.0 ? b : at(to)};
}

bool isSame(FramePoint a, FramePoint b) {
  return a.x == b.x && a.y == b.y;
}

void addSegment(FramePoint a, FramePoint b, std::vector<std::vector<FramePoint>>& lines) {
  auto const part = cutSegment(a, b);
  if (!part) {
    return;
  }
  bool const goesOn = !lines.empty() && isSame(part->first, a) && isSame(lines.back().back(), a);
  if (goesOn) {
    lines.back().push_back(part->second);
  } else {
    lines.push_back({part->first, part->second});
  }
}

}  // namespace

VisibleCurve cutToFrame(std::span<double const> x, std::span<double const> y, AxisRange xRange,
                        AxisRange yRange) {
  VisibleCurve curve;
  std::size_t const count = std::min(x.size(), y.size());
  auto const isUsable = [&](std::size_t i) {
    return i < count && std::isfinite(x[i]) && std::isfinite(y[i]);
  };
  FramePoint previous{};
  bool connected = false;
  for (std::size_t i = 0; i < count; ++i) {
    if (!isUsable(i)) {
      connected = false;
      continue;
    }
    FramePoint const point{inFrame(x[i], xRange), inFrame(y[i], yRange)};
    if (isInside(point)) {
      curve.points.push_back(point);
      if (!connected && !isUsable(i + 1)) {
        curve.singles.push_back(point);
      }
    }
    if (connected) {
      addSegment(previous, point, curve.lines);
    }
    previous = point;
    connected = true;
  }
  return curve;
}

}  // namespace OrvikPDF
