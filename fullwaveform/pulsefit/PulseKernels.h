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
};

/// Products of the weighted derivatives of one echo, by position, amplitude and variance.
struct EchoProducts {
  double sums[3];       ///< with 1, the derivative by the baseline
  double residuals[3];  ///< with the residual
};

/// The inner loops of a pulse fit, compiled for one instruction set. Counts are rounded up to whole lanes;
/// arrays are readable and writable up to there.
struct PulseKernels {
  /// Evaluates the series of a place, from its row index `skip` on.
  void (*interpolate)(PulseTable::Place const& place, std::size_t skip, std::size_t count,
                      PulseColumns const& columns);
  /// sum += amplitude * values
  void (*add)(double amplitude, double const* values, std::size_t count, double* sum);
  /// residual = signal - model; returns the sum of weight * residual^2.
  double (*subtract)(double const* signal, double const* model, double const* weights, std::size_t count,
                     double* residual);
  /// Multiplies the columns by the weights, into `weighted`.
  EchoProducts (*weigh)(PulseColumns const& columns, double const* weights, double const* residual,
                        std::size_t count, PulseColumns const& weighted);
  /// products[3 i + j] = sum of column i of `weighted` times column j of `columns`.
  void (*multiply)(PulseColumns const& weighted, PulseColumns const& columns, std::size_t count,
                   double* products);
  /// scores[i] = sum over j of values[i + j] * taps[j], for `count` values of i.
  void (*correlate)(double const* values, double const* taps, std::size_t tapCount, std::size_t count,
                    double* scores);
};

/// @param set  must be available on this machine
PulseKernels const& pulseKernels(InstructionSet set) noexcept;

}  // namespace FullWaveform
