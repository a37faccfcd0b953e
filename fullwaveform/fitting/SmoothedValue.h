#pragma once

#include <array>
#include <cstddef>
#include <span>

namespace FullWaveform {

/// Weights of five neighbouring values whose sum is the value of their parabola at a position.
struct SmoothingWeights {
  std::size_t first = 0;  ///< index of the first of the five values
  std::array<double, 5> weights{};
};

/// Weights of the parabola through the five of `count` values that are nearest to a position, by least
/// squares.
///
/// It averages noise without flattening a maximum: A. Savitzky, M. J. E. Golay, Analytical Chemistry 36
/// (1964), 1627-1639.
///
/// @param position  index of a value; one outside is moved to the nearest end
/// @return weights of 0 for fewer than five values
SmoothingWeights smoothingAt(std::size_t count, double position);

/// Value at a position of the parabola through the five nearest values, with the weights of `smoothingAt`.
///
/// @return 0 for fewer than five values
double smoothedAt(std::span<double const> values, double position);

}  // namespace FullWaveform
