#pragma once

#include <algorithm>
#include <cmath>
#include <span>

namespace FullWaveform {

/// Whether a sum of squares lost nothing to overflow or to numbers below the normal ones.
inline bool isTrustworthy(double squares) {
  constexpr double least = 1e-280;
  constexpr double most = 1e280;
  return squares > least && squares < most;
}

/// Euclidean norm, from squares relative to the largest value: nothing overflows or is lost.
inline double scaledNorm(std::span<double const> values) {
  double largest = 0.0;
  for (double const value : values) {
    // Written so that what is not a number is kept.
    largest = std::abs(value) <= largest ? largest : std::abs(value);
  }
  if (!(largest > 0.0) || !std::isfinite(largest)) {
    return largest;
  }
  double squares = 0.0;
  for (double const value : values) {
    squares += (value / largest) * (value / largest);
  }
  return largest * std::sqrt(squares);
}

/// Euclidean norm of a few values.
inline double norm(std::span<double const> values) {
  double squares = 0.0;
  for (double const value : values) {
    squares += value * value;
  }
  return isTrustworthy(squares) ? std::sqrt(squares) : scaledNorm(values);
}

}  // namespace FullWaveform
