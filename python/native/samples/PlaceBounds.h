#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <span>

/// Where waveforms lie in space; the coordinates of a place follow each other.
struct WaveformPlaces {
  std::span<double const> anchors;     // 3 per waveform
  std::span<double const> locations;   // ps after the first sample
  std::span<double const> directions;  // 3 per waveform, per ps
  std::span<double const> intervals;   // s per sample
  std::span<std::uint16_t const> counts;
};

/// The box around the places of the first and last samples of waveforms; places that are not finite are left
/// out.
class PlaceBounds {
 public:
  using Place = std::array<double, 3>;

  /// @throws std::invalid_argument if the sizes do not agree
  void add(WaveformPlaces const& waveforms);

  /// Infinite without a place.
  [[nodiscard]] Place const& lower() const { return low; }
  /// Minus infinite without a place.
  [[nodiscard]] Place const& upper() const { return high; }

 private:
  void extendBy(Place const& place);

  static constexpr double infinity = std::numeric_limits<double>::infinity();
  Place low{infinity, infinity, infinity};
  Place high{-infinity, -infinity, -infinity};
};
