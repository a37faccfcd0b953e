#pragma once

#include <cstddef>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/LaneCount.h>
#include <fullwaveform/pulsefit/PulseTable.h>

namespace FullWaveform {

/// A pulse of amplitude 1 at the samples of a waveform, and its derivatives by lag and by variance.
struct PulseColumns {
  double* value;
  double* byLag;
  double* byVariance;

  [[nodiscard]] PulseColumns from(std::size_t sample) const {
    return {value + sample, byLag + sample, byVariance + sample};
  }
};

/// Weighted sums of the derivatives of one echo by position, amplitude and variance.
struct EchoProducts {
  double sums[3];       ///< of products with 1, the derivative by the baseline
  double residuals[3];  ///< of products with the residual
  double products[6];   ///< of products with each other: lower triangle, in rows
};

/// Weighted sums of the residual.
struct ResidualSums {
  double plain;
  double squares;
};

/// The inner loops of a pulse fit, compiled for one instruction set. Counts are rounded up to whole lanes;
/// arrays are readable and writable up to there.
struct PulseKernels {
  /// Evaluates the series of a place, from its row index `skip` on.
  void (*interpolate)(PulseTable::Place const& place, std::size_t skip, std::size_t count,
                      PulseColumns const& columns);
  /// residual = signal - baseline
  void (*subtractBaseline)(double const* signal, double baseline, std::size_t count, double* residual);
  /// residual -= amplitude * pulse
  void (*subtractPulse)(double amplitude, double const* pulse, std::size_t count, double* residual);
  ResidualSums (*sumResidual)(double const* weights, double const* residual, std::size_t count);
  /// Of exactly `count` values.
  double (*sumSquares)(double const* values, std::size_t count);
  EchoProducts (*sumEcho)(PulseColumns const& columns, double const* weights, double const* residual,
                          std::size_t count);
  /// products[3 i + j] = sum of weight times column i of `left` times column j of `right`; columns are in the
  /// order of `EchoProducts`.
  void (*multiply)(PulseColumns const& left, PulseColumns const& right, double const* weights,
                   std::size_t count, double* products);
  /// Factors a symmetric matrix into U^T D U. Each of the n rows has `stride` values, whole lanes: the upper
  /// triangle of the matrix and, in column n, a right side; values left of the diagonal are overwritten. Rows
  /// whose factor is 0, as for echoes far from each other, cost nothing.
  /// @return false if the matrix is not positive definite
  bool (*factor)(double* rows, std::size_t n, std::size_t stride);
  /// scores[i] = sum over j of values[i + j] * taps[j], for `count` values of i, rounded up to two lanes.
  void (*correlate)(double const* values, double const* taps, std::size_t tapCount, std::size_t count,
                    double* scores);
};

/// @param set  must be available on this machine
PulseKernels const& pulseKernels(InstructionSet set) noexcept;

}  // namespace FullWaveform
