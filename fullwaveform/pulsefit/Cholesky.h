#pragma once

#include <cstddef>
#include <span>

namespace FullWaveform {

/// Replaces the lower triangle of a symmetric matrix (n x n, in rows) by its factors L D L^T: the diagonal
/// holds the inverse of D, the rest the unit triangular L. Without square roots, and with one division per
/// row.
/// @return false if the matrix is not positive definite
bool choleskyFactor(std::span<double> matrix, std::size_t n);

/// Solves with the factors; `x` holds the right side and receives the solution.
void choleskySolve(std::span<double const> factor, std::size_t n, std::span<double> x);

/// Inverse of the factored matrix, in rows.
void choleskyInverse(std::span<double const> factor, std::size_t n, std::span<double> inverse);

}  // namespace FullWaveform
