#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include <native/las/PointRecords.h>

namespace Las {

/// How stored coordinates become those of the file's units: times scale plus offset.
struct Scaling {
  std::array<double, 3> scales;
  std::array<double, 3> offsets;
};

/// Fields of the points of waveforms, column by column; the coordinates of a point follow each other.
struct WaveformColumns {
  std::vector<double> anchors;
  std::vector<double> locations;  // ps after the first sample
  std::vector<double> directions;
  std::vector<double> times;      // s
  std::vector<float> scanAngles;  // degrees
  std::vector<std::uint8_t> scanDirections;
  std::vector<std::uint8_t> edges;
  std::vector<std::uint8_t> userData;
  std::vector<std::uint16_t> sources;
  std::vector<std::int64_t> packetOffsets;
  std::vector<std::uint8_t> descriptors;
};

/// Fields of the points of pulses as discrete returns.
struct ReturnColumns {
  std::vector<std::int64_t> points;  // index of the point of each
  std::vector<std::int64_t> owners;
  bool areOrdered = false;
  std::vector<double> places;
  std::vector<double> locations;  // ps after the first sample
  std::vector<std::uint8_t> descriptors;
  std::vector<std::uint8_t> withheld;
  std::vector<std::uint8_t> numbers;
  std::vector<std::uint8_t> counts;
  std::vector<std::uint16_t> intensities;
  std::vector<std::uint8_t> classes;
};

WaveformColumns waveformColumns(PointList const& points, Scaling const& scaling);

/// Returns that are not withheld and have a finite location, ascending by owner and then by location; if any
/// point has no packet and so no location, all points as they are.
///
/// @param owners  of the points, ascending: waveform in which the return lies
/// @throws std::invalid_argument for different numbers of points and owners
ReturnColumns returnColumns(PointList const& points, std::span<std::int64_t const> owners,
                            Scaling const& scaling);

}  // namespace Las
