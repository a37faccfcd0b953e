#include <native/las/PointColumns.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace Las {

namespace {

void writeCoordinates(Point const& point, Scaling const& scaling, double* place) {
  for (std::size_t axis = 0; axis < 3; ++axis) {
    place[axis] = point.coordinate(axis) * scaling.scales[axis] + scaling.offsets[axis];
  }
}

/// Sorts returns of one waveform by location, those at the same one in their order.
void sortByLocation(std::span<std::int64_t> returns, std::span<float const> locations) {
  auto const isEarlier = [locations](std::int64_t one, std::int64_t other) {
    return locations[static_cast<std::size_t>(one)] < locations[static_cast<std::size_t>(other)];
  };
  if (!std::is_sorted(returns.begin(), returns.end(), isEarlier)) {
    std::stable_sort(returns.begin(), returns.end(), isEarlier);
  }
}

/// Indices of the returns as `returnColumns` lists them; none if a point has no packet.
std::optional<std::vector<std::int64_t>> orderedReturns(PointList const& points,
                                                        std::span<std::int64_t const> owners) {
  std::vector<std::int64_t> order;
  order.reserve(points.count());
  std::vector<float> locations(points.count());
  std::size_t first = 0;  // in `order`, of the owner
  for (std::size_t i = 0; i < points.count(); ++i) {
    Point const point = points[i];
    if (point.descriptor() == 0) {
      return std::nullopt;
    }
    if (i > 0 && owners[i] != owners[i - 1]) {
      sortByLocation(std::span(order).subspan(first), locations);
      first = order.size();
    }
    locations[i] = point.location();
    if (!point.isWithheld() && std::isfinite(locations[i])) {
      order.push_back(static_cast<std::int64_t>(i));
    }
  }
  sortByLocation(std::span(order).subspan(first), locations);
  return order;
}

}  // namespace

WaveformColumns waveformColumns(PointList const& points, Scaling const& scaling) {
  std::size_t const count = points.count();
  WaveformColumns columns;
  columns.anchors.resize(3 * count);
  columns.locations.resize(count);
  columns.directions.resize(3 * count);
  columns.times.resize(count);
  columns.scanAngles.resize(count);
  columns.scanDirections.resize(count);
  columns.edges.resize(count);
  columns.userData.resize(count);
  columns.sources.resize(count);
  columns.packetOffsets.resize(count);
  columns.descriptors.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    Point const point = points[i];
    writeCoordinates(point, scaling, &columns.anchors[3 * i]);
    columns.locations[i] = point.location();
    for (std::size_t axis = 0; axis < 3; ++axis) {
      columns.directions[3 * i + axis] = point.direction(axis);
    }
    columns.times[i] = point.time();
    columns.scanAngles[i] = point.scanAngle();
    columns.scanDirections[i] = point.scanDirection();
    columns.edges[i] = point.edgeOfFlightLine();
    columns.userData[i] = point.userData();
    columns.sources[i] = point.source();
    columns.packetOffsets[i] = static_cast<std::int64_t>(point.packetOffset());
    columns.descriptors[i] = point.descriptor();
  }
  return columns;
}

ReturnColumns returnColumns(PointList const& points, std::span<std::int64_t const> owners,
                            Scaling const& scaling) {
  if (owners.size() != points.count()) {
    throw std::invalid_argument(std::to_string(owners.size()) + " owners of " +
                                std::to_string(points.count()) + " points");
  }
  ReturnColumns columns;
  if (std::optional<std::vector<std::int64_t>> order = orderedReturns(points, owners)) {
    columns.areOrdered = true;
    columns.points = std::move(*order);
  } else {
    columns.points.resize(points.count());
    std::iota(columns.points.begin(), columns.points.end(), 0);
  }
  std::size_t const count = columns.points.size();
  columns.owners.resize(count);
  columns.places.resize(3 * count);
  columns.locations.resize(count);
  columns.descriptors.resize(count);
  columns.withheld.resize(count);
  columns.numbers.resize(count);
  columns.counts.resize(count);
  columns.intensities.resize(count);
  columns.classes.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    Point const point = points[static_cast<std::size_t>(columns.points[i])];
    writeCoordinates(point, scaling, &columns.places[3 * i]);
    columns.owners[i] = owners[static_cast<std::size_t>(columns.points[i])];
    columns.locations[i] = point.location();
    columns.descriptors[i] = point.descriptor();
    columns.withheld[i] = static_cast<std::uint8_t>(point.isWithheld());
    columns.numbers[i] = point.returnNumber();
    columns.counts[i] = point.returnCount();
    columns.intensities[i] = point.intensity();
    columns.classes[i] = point.classification();
  }
  return columns;
}

}  // namespace Las
