#pragma once

#include <array>
#include <cstddef>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/EchoUncertainty.h>

namespace FullWaveform {

/// Echoes of the three-point fit whose uncertainties are computed together: each value of all echoes is a
/// row.
struct ThreePointBatch {
  static constexpr std::size_t capacity = 64;
  static constexpr std::size_t reach = 3;  ///< samples on either side that show the width of an echo
  static constexpr std::size_t samplesPerEcho = 2 * reach + 1;
  static constexpr std::size_t lags = 3;  ///< of three neighbouring samples

  using Row = std::array<double, capacity>;

  alignas(64) std::array<Row, samplesPerEcho> samples{};     ///< counts of at least 1; 0 is left out
  alignas(64) std::array<Row, samplesPerEcho> logarithms{};  ///< of the samples; 0 if these are left out
  alignas(64) std::array<Row, lags> covariances{};           ///< of samples 0, 1, 2 apart
  alignas(64) Row offsets{};                                 ///< of the echo from the middle sample
  alignas(64) Row baselineVariances{};
  std::array<EchoUncertainty*, capacity> results{};
  std::size_t count = 0;
};

/// Variances of the values of a batch; NaN where the samples are not those of a fit at the offset.
struct ThreePointVariances {
  alignas(64) ThreePointBatch::Row position{};
  alignas(64) ThreePointBatch::Row amplitude{};
  alignas(64) ThreePointBatch::Row fwhm{};
};

/// Computes the variances of the echoes of a batch.
using ThreePointKernel = void (*)(ThreePointBatch const& batch, ThreePointVariances& variances);

/// @param set  must be available on this machine; all give the same digits
ThreePointKernel threePointKernel(InstructionSet set) noexcept;

}  // namespace FullWaveform
