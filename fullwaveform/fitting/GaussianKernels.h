#pragma once

#include <cstddef>

#include <fullwaveform/fitting/GaussianSum.h>
#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform {

/// Kernels work on eight doubles at a time, whatever the machine's vectors hold: the number of lanes and the
/// order of every sum are fixed, so that all instruction sets give the same digits. Columns are as long as a
/// multiple of this.
inline constexpr std::size_t laneCount = 8;

/// The columns of a sum of Gaussians as plain memory.
struct GaussianColumns {
  double const* signal;
  double* first;
  std::size_t stride;  ///< from column to column
  double start;        ///< sample index of the first row
  double end;          ///< sample index behind the last row; what lies beyond is set to 0
};

/// A column that a Householder reflection turns onto one of its rows, and those that are reflected along.
struct Reflection {
  double* pivot;            ///< holds the reflector afterwards
  std::size_t row;          ///< less than `laneCount`; what lies above is done
  std::size_t rows;         ///< a multiple of `laneCount`
  double squares;           ///< sum of the squares of the pivot's column from `row` on, a normal number
  double* const* columns;   ///< the others
  std::size_t count;        ///< of the others
  double* squaresOfOthers;  ///< receives for each the sum of its squares behind `row`
};

/// What a fit spends its time in, in the form that was compiled for one instruction set.
struct GaussianKernels {
  /// Sets the columns of the amplitudes, and the residual behind the last column; returns its squares.
  double (*evaluate)(GaussianColumns const& columns, GaussianShape const* shapes, std::size_t count);
  /// Sets the other two columns of the first Gaussian, and the squares of all three.
  void (*differentiate)(GaussianColumns const& columns, GaussianShape const& shape, double* squares);
  /// Returns what the pivot's column becomes in its row.
  double (*reflect)(Reflection const& reflection);
};

/// The kernels for an instruction set that the machine has.
GaussianKernels const& gaussianKernels(InstructionSet set) noexcept;

/// e^x for x that is not positive, one of the lanes of the kernels.
double decayOf(double x) noexcept;

}  // namespace FullWaveform
