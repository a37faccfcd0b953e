#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

namespace EchoTable {

using Triple = std::array<double, 3>;

inline constexpr double unknown = std::numeric_limits<double>::quiet_NaN();
inline constexpr float unknownSingle = std::numeric_limits<float>::quiet_NaN();

/// Waveforms of a block, one value per row; places and directions have three.
struct Waveforms {
  std::span<double const> shotTimes;          ///< s, equal for the waveforms of a shot
  std::span<double const> samplingIntervals;  ///< s
  std::span<double const> anchors;            ///< coordinate units: a point of the pulse
  std::span<double const> locations;          ///< ps after the first sample at which the anchor lies
  std::span<double const> directions;         ///< coordinate units per ps, against the flight of light
  std::span<double const> phases;             ///< samples by which the outgoing pulse left late
  std::span<std::int64_t const> scales;       ///< factor of the samples in which echoes were found
  std::span<double const> halfWidths;         ///< s, reach of echoes of unknown width
  std::span<double const> gpsTimes;
  std::span<float const> scanAngles;
  std::span<std::uint8_t const> scanDirectionFlags;
  std::span<std::uint8_t const> edgesOfFlightLine;
  std::span<std::uint8_t const> userData;
  std::span<std::uint16_t const> pointSourceIds;
  std::span<std::int64_t const> numbers;
  std::span<std::uint8_t const> channelFlags;
  std::span<std::uint8_t const> descriptors;

  [[nodiscard]] std::size_t size() const { return shotTimes.size(); }
};

/// Discrete returns of the pulses of a block.
struct DiscreteReturns {
  std::span<std::int64_t const> rows;  ///< row of the block in whose waveform each return lies
  std::span<double const> times;       ///< ps after the first sample of that waveform
  std::span<std::uint8_t const> classifications;
  std::span<std::uint8_t const> returnNumbers;
};

/// An echo as a method found it. The defaults are those of a waveform without echoes.
struct FoundEcho {
  std::int64_t row = 0;              ///< of the block
  double position = unknown;         ///< samples
  double libraryPosition = unknown;  ///< samples, without refinement
  double time = unknown;             ///< s
  double height = unknown;           ///< counts above the baseline
  double sigma = unknown;            ///< standard deviation, samples
  double sigmaPosition = unknown;    ///< uncertainties, samples and counts
  double sigmaHeight = unknown;
  double sigmaFwhm = unknown;
  double significance = unknown;
  double reducedChiSquare = unknown;
  float libraryDecibels = unknownSingle;  ///< the library's own amplitude
  float reflectance = unknownSingle;
  std::uint8_t type = 0;
  std::uint8_t quality = 0;
  std::uint8_t fitFlags = 0;
};

inline Triple tripleOf(std::span<double const> values, std::int64_t row) {
  std::size_t const first = 3 * static_cast<std::size_t>(row);
  return {values[first], values[first + 1], values[first + 2]};
}

inline double dot(Triple const& a, Triple const& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline Triple difference(Triple const& a, Triple const& b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

/// The place of a sample, ps after the first one of a row.
inline Triple placeOf(Waveforms const& waveforms, std::int64_t row, double picoseconds) {
  Triple place = tripleOf(waveforms.anchors, row);
  Triple const direction = tripleOf(waveforms.directions, row);
  double const lead = waveforms.locations[static_cast<std::size_t>(row)] - picoseconds;
  for (std::size_t axis = 0; axis < place.size(); ++axis) {
    place[axis] += lead * direction[axis];
  }
  return place;
}

}  // namespace EchoTable
