#pragma once

#include <cmath>
#include <cstddef>

#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform {

/// Kernels work on eight doubles at a time, whatever the machine's vectors hold: the number of lanes and the
/// order of every sum are fixed, so that all instruction sets give the same digits. Columns are as long as a
/// multiple of this.
inline constexpr std::size_t laneCount = 8;

/// The Gaussian that three parameters stand for in the model.
struct GaussianShape {
  explicit GaussianShape(double const* parameters)
      : amplitude(std::abs(parameters[0])),
        position(std::abs(parameters[1])),
        width(std::abs(parameters[2])) {}

  [[nodiscard]] double perVariance() const { return 1.0 / (width * width); }

  double amplitude;
  double position;
  double width;
};

/// The columns of a sum of Gaussians as plain memory.
struct GaussianColumns {
  double const* signal;
  double* first;
  std::size_t stride;  ///< from column to column
  double start;        ///< sample index of the first row
  double end;          ///< sample index behind the last row; what lies beyond is set to 0
};

/// What a fit spends its time in, in the form that was compiled for one instruction set.
struct GaussianKernels {
  /// Sets the columns of the amplitudes, and the residual behind the last column; returns its squares.
  double (*evaluate)(GaussianColumns const& columns, double const* parameters, std::size_t count);
  /// Sets the other two columns of the first Gaussian, and the squares of all three.
  void (*differentiate)(GaussianColumns const& columns, double const* parameters, double* squares);
  /// Takes factor (u.x) u off each column x.
  void (*reflect)(double const* u, double factor, std::size_t rows, double* const* columns,
                  std::size_t count);
  /// Copies the rows of a column behind `row`, zeros before them; returns the sum of their squares.
  double (*copyTail)(double const* column, double* tail, std::size_t row, std::size_t rows);
};

/// The kernels for an instruction set that the machine has.
GaussianKernels const& gaussianKernels(InstructionSet set) noexcept;

/// e^x, one of the lanes of the kernels.
double exponentialOf(double x) noexcept;

}  // namespace FullWaveform
