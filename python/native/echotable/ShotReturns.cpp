#include <native/echotable/ShotReturns.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <native/echotable/Units.h>

namespace EchoTable {

void ShotReturns::take(std::int64_t firstRow, std::span<std::int64_t const> indices) {
  first = firstRow;
  ordered.clear();
  for (std::int64_t const index : indices) {
    auto const i = static_cast<std::size_t>(index);
    ordered.push_back({beginOf(returns.rows[i]) + returns.times[i], index});
  }
  auto const earlier = [](TimedReturn const& a, TimedReturn const& b) { return lessNanLast(a.time, b.time); };
  if (!std::is_sorted(ordered.begin(), ordered.end(), earlier)) {
    std::stable_sort(ordered.begin(), ordered.end(), earlier);
  }
}

std::int64_t ShotReturns::nearestTo(FoundEcho const& echo) const {
  if (ordered.empty()) {
    return -1;
  }
  double const interval = waveforms.samplingIntervals[static_cast<std::size_t>(echo.row)];
  double const time = beginOf(echo.row) + echo.position * interval * picosecondsPerSecond;
  auto const after = std::find_if(ordered.begin(), ordered.end(),
                                  [time](TimedReturn const& one) { return lessNanLast(time, one.time); });
  double const none = std::numeric_limits<double>::infinity();
  double const gapBefore = after == ordered.begin() ? none : std::abs(std::prev(after)->time - time);
  double const gapAfter = after == ordered.end() ? none : std::abs(after->time - time);
  bool const isBefore = gapBefore <= gapAfter;
  double const gap = isBefore ? gapBefore : gapAfter;
  if (!(gap <= reachOf(echo)) || gap == none) {  // true for NaN
    return -1;
  }
  return isBefore ? std::prev(after)->index : after->index;
}

double ShotReturns::beginOf(std::int64_t row) const {
  Triple const direction = tripleOf(waveforms.directions, first);
  double const squared = dot(direction, direction);
  if (row == first || !(squared > 0.0)) {
    return 0.0;
  }
  Triple const lead = difference(placeOf(waveforms, row, 0.0), placeOf(waveforms, first, 0.0));
  return -dot(lead, direction) / squared;
}

double ShotReturns::reachOf(FoundEcho const& echo) const {
  auto const row = static_cast<std::size_t>(echo.row);
  double const interval = waveforms.samplingIntervals[row];
  bool const isKnown = echo.sigma > 0.0;  // false for NaN
  double const half = isKnown ? fwhmPerSigma / 2.0 * echo.sigma * interval : waveforms.halfWidths[row];
  return std::max(half, interval) * picosecondsPerSecond;
}

}  // namespace EchoTable
