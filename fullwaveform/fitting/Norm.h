#pragma once

#include <cmath>
#include <span>

namespace FullWaveform {

/// Whether a sum of squares lost nothing to overflow or to numbers below the normal ones.
inline bool isTrustworthy(double squares) {
  constexpr double least = 1e-280;
  constexpr double most = 1e280;
  return squares > least && squares < most;
}

/// Euclidean norm of values whose squares overflow or are lost: powers of two move them to where they do not
/// (Blue 1978, doi:10.1145/355769.355771). Norms below 3e-316 are 0; what is not a number is kept.
inline double scaledNorm(std::span<double const> values, double squares) {
  double const power = squares < 1.0 ? 0x1p511 : 0x1p-538;
  double moved = 0.0;
  for (double const value : values) {
    moved += (value * power) * (value * power);
  }
  return std::sqrt(moved) / power;
}

/// Euclidean norm from the sum of the squares; the values are read only where that is not enough.
inline double norm(std::span<double const> values, double squares) {
  return isTrustworthy(squares) ? std::sqrt(squares) : scaledNorm(values, squares);
}

/// Euclidean norm of a few values.
inline double norm(std::span<double const> values) {
  double squares = 0.0;
  for (double const value : values) {
    squares += value * value;
  }
  return norm(values, squares);
}

}  // namespace FullWaveform
