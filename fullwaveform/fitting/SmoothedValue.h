#pragma once

#include <span>

namespace FullWaveform {

/// Value at a position of the parabola through the five nearest values, by least squares.
///
/// It averages noise without flattening a maximum: A. Savitzky, M. J. E. Golay, Analytical Chemistry 36
/// (1964), 1627-1639.
///
/// @param position  index of a value; one outside is read at the nearest end
/// @return 0 for fewer than five values
double smoothedAt(std::span<double const> values, double position);

}  // namespace FullWaveform
