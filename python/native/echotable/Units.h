#pragma once

#include <cmath>
#include <numbers>

namespace EchoTable {

inline constexpr double picosecondsPerSecond = 1e12;
inline constexpr double nanosecondsPerSecond = 1e9;
/// Full width at half maximum of a Gaussian of standard deviation 1.
inline double const fwhmPerSigma = 2.0 * std::sqrt(2.0 * std::numbers::ln2);

/// Whether a precedes b in ascending order, with NaN after all numbers.
inline bool lessNanLast(double a, double b) {
  return a < b || (std::isnan(b) && !std::isnan(a));
}

}  // namespace EchoTable
