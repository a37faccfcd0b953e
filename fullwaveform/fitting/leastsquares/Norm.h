#pragma once

#include <cmath>
#include <span>

namespace FullWaveform {

/// Whether no square in a sum of squares can have overflowed or underflowed to a degree that matters.
inline bool isInSafeRange(double squares) {
  constexpr double minSafe = 1e-280;
  constexpr double maxSafe = 1e280;
  return squares > minSafe && squares < maxSafe;
}

/// Euclidean norm of values whose squares overflow or underflow: they are scaled by a power of two first
/// (Blue 1978, doi:10.1145/355769.355771). As in blueNorm of Eigen 3.4, norms below about 2.3e-316 are 0;
/// NaN gives NaN.
inline double scaledNorm(std::span<double const> values, double squares) {
  double const power = squares < 1.0 ? 0x1p511 : 0x1p-538;
  double scaledSquares = 0.0;
  for (double const value : values) {
    scaledSquares += (value * power) * (value * power);
  }
  return std::sqrt(scaledSquares) / power;
}

/// Euclidean norm from the sum of the squares; the values are read only where that is not enough.
inline double norm(std::span<double const> values, double squares) {
  return isInSafeRange(squares) ? std::sqrt(squares) : scaledNorm(values, squares);
}

inline double norm(std::span<double const> values) {
  double squares = 0.0;
  for (double const value : values) {
    squares += value * value;
  }
  return norm(values, squares);
}

}  // namespace FullWaveform
