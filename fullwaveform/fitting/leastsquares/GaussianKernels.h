#pragma once

#include <cstddef>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/LaneCount.h>
#include <fullwaveform/fitting/leastsquares/GaussianSum.h>

namespace FullWaveform {

/// The columns of a sum of Gaussians in memory. Their length is a multiple of `laneCount`.
struct GaussianColumns {
  double const* signal;
  double* first;
  std::size_t stride;  ///< from column to column
  double start;        ///< sample index of the first row
  double end;          ///< sample index after the last row; rows from there on are set to 0
};

/// A Householder reflection of a column onto one of its rows, and the columns that it is applied to.
struct Reflection {
  double* pivot;            ///< column; receives the reflector
  std::size_t row;          ///< less than `laneCount`; the rows above are not changed
  std::size_t rows;         ///< a multiple of `laneCount`
  double squares;           ///< sum of the squares of the pivot's column from `row` on, a normal number
  double* const* columns;   ///< the other columns
  std::size_t count;        ///< number of the other columns
  double* squaresOfOthers;  ///< receives for each of them the sum of its squares below `row`
};

/// The inner loops of a fit, compiled for one instruction set.
struct GaussianKernels {
  /// Sets the amplitude columns, and the residual after the last column; returns its sum of squares.
  double (*evaluate)(GaussianColumns const& columns, GaussianShape const* shapes, std::size_t count);
  /// Sets the other two columns of the first Gaussian, and the sums of squares of all three.
  void (*differentiate)(GaussianColumns const& columns, GaussianShape const& shape, double* squares);
  /// Returns the value of the pivot's column in its row after the reflection.
  double (*reflect)(Reflection const& reflection);
};

/// @param set  must be available on this machine
GaussianKernels const& gaussianKernels(InstructionSet set) noexcept;

/// e^x for x <= 0, with the digits of the kernels.
double decayOf(double x) noexcept;

}  // namespace FullWaveform
