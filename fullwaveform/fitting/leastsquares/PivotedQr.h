#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/leastsquares/GaussianSum.h>

namespace FullWaveform {

/// QR factorisation of the derivatives of a sum of Gaussians, J P = Q R, by Householder reflections with
/// column pivoting (Golub and Van Loan, Matrix Computations, 5.4). The reflections also turn the
/// residual f into Q^T f. Each reflection computes the remaining norms of the columns anew instead of
/// downdating them.
class PivotedQr {
 public:
  explicit PivotedQr(InstructionSet set = widestInstructionSet()) : instructionSet(set) {}

  /// Overwrites the columns of the sum, which has at least as many samples as columns.
  /// @param squaresOfColumns  sum of squares of each column
  void factorise(GaussianSum& sum, std::span<double const> squaresOfColumns);

  /// Number of columns.
  [[nodiscard]] std::size_t size() const { return qtf.size(); }
  /// Number of pivots that are not rounding errors of the largest.
  [[nodiscard]] std::size_t rank() const;
  /// Element of R. Only the upper triangle is R; callers may use the lower one as working memory.
  [[nodiscard]] double& r(std::size_t row, std::size_t column) { return triangle[column * size() + row]; }
  [[nodiscard]] double r(std::size_t row, std::size_t column) const {
    return triangle[column * size() + row];
  }

  std::vector<std::size_t> order;  ///< P: for each column of R its column of J
  std::vector<double> qtf;         ///< the first values of Q^T f

 private:
  void choosePivot(std::size_t step);
  double applyReflection(GaussianSum& sum, std::size_t step);

  InstructionSet instructionSet;
  std::vector<double> triangle;  ///< R, column by column
  std::vector<double> squares;   ///< of each column and then of f, summed over the rows that are not finished
  std::vector<double*> columns;  ///< to which a reflection is applied
};

}  // namespace FullWaveform
