#include <native/samples/PlaceBounds.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <string>

void PlaceBounds::add(WaveformPlaces const& waveforms) {
  constexpr double picoseconds = 1e12;  // per s
  std::size_t const count = waveforms.counts.size();
  if (waveforms.anchors.size() != 3 * count || waveforms.directions.size() != 3 * count ||
      waveforms.locations.size() != count || waveforms.intervals.size() != count) {
    throw std::invalid_argument("places of other waveforms than the " + std::to_string(count) + " counts");
  }
  for (std::size_t i = 0; i < count; ++i) {
    double const lasting = (waveforms.counts[i] - 1.0) * waveforms.intervals[i] * picoseconds;
    Place first{};
    Place last{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
      double const direction = waveforms.directions[3 * i + axis];
      first[axis] = waveforms.anchors[3 * i + axis] + waveforms.locations[i] * direction;
      last[axis] = first[axis] - lasting * direction;
    }
    extendBy(first);
    extendBy(last);
  }
}

void PlaceBounds::extendBy(Place const& place) {
  if (!std::isfinite(place[0]) || !std::isfinite(place[1]) || !std::isfinite(place[2])) {
    return;
  }
  for (std::size_t axis = 0; axis < 3; ++axis) {
    low[axis] = std::min(low[axis], place[axis]);
    high[axis] = std::max(high[axis], place[axis]);
  }
}
