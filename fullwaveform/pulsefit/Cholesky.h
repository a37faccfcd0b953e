#pragma once

#include <cstddef>
#include <span>

namespace FullWaveform {

/// Solutions of symmetric equations from the factors of `PulseKernels::factor`: n rows of `stride` values
/// with the inverse of D on the diagonal, the unit triangular U to its right, and the right side, divided by
/// U^T D, in column n.

/// Solution for the right side that was factored with the matrix.
void choleskySolve(std::span<double const> rows, std::size_t n, std::size_t stride, std::span<double> x);

/// Inverse of the factored matrix, in rows of n values.
void choleskyInverse(std::span<double const> rows, std::size_t n, std::size_t stride,
                     std::span<double> inverse);

}  // namespace FullWaveform
