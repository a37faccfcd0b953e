#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/GaussianSum.h>
#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform {

/// Factorises the derivatives of a sum of Gaussians, J P = Q R, by Householder reflections with column
/// pivoting (Golub and Van Loan, Matrix Computations, 5.4), and takes the residual along to Q^T f. What is
/// left of the columns' norms is summed anew by each reflection, not downdated.
class FULLWAVEFORM_EXPORT PivotedQr {
 public:
  explicit PivotedQr(InstructionSet set = widestInstructionSet()) : instructionSet(set) {}

  /// Uses up the columns of the sum, which has at least as many samples as columns.
  /// @param squaresOfColumns  the sum of the squares of each
  void factorise(GaussianSum& sum, std::span<double const> squaresOfColumns);

  /// Number of columns.
  [[nodiscard]] std::size_t size() const { return qtf.size(); }
  /// Pivots that are not rounding errors of the largest.
  [[nodiscard]] std::size_t rank() const;
  /// Element of R; of the upper triangle the others may use the lower one as working memory.
  [[nodiscard]] double& r(std::size_t row, std::size_t column) { return triangle[column * size() + row]; }
  [[nodiscard]] double r(std::size_t row, std::size_t column) const {
    return triangle[column * size() + row];
  }

  std::vector<std::size_t> order;  ///< P: which column of J each column of R belongs to
  std::vector<double> qtf;         ///< the first values of Q^T f

 private:
  void choosePivot(std::size_t step);
  double reflectRest(GaussianSum& sum, std::size_t step);

  InstructionSet instructionSet;
  std::vector<double> triangle;  ///< R, column by column
  std::vector<double> squares;   ///< of what each column, and behind them f, has below the rows that are done
  std::vector<double*> columns;  ///< that are reflected along
};

}  // namespace FullWaveform
