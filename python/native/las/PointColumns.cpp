#include <native/las/PointColumns.h>

#include <cstddef>

namespace Las {

namespace {

void writeCoordinates(Point const& point, Scaling const& scaling, double* place) {
  for (std::size_t axis = 0; axis < 3; ++axis) {
    place[axis] = point.coordinate(axis) * scaling.scales[axis] + scaling.offsets[axis];
  }
}

}  // namespace

WaveformColumns waveformColumns(PointRecords const& points, Scaling const& scaling) {
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

ReturnColumns returnColumns(PointRecords const& points, Scaling const& scaling) {
  std::size_t const count = points.count();
  ReturnColumns columns;
  columns.places.resize(3 * count);
  columns.locations.resize(count);
  columns.descriptors.resize(count);
  columns.withheld.resize(count);
  columns.numbers.resize(count);
  columns.counts.resize(count);
  columns.intensities.resize(count);
  columns.classes.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    Point const point = points[i];
    writeCoordinates(point, scaling, &columns.places[3 * i]);
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
