#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace FullWaveform {

/// Lower triangle of a symmetric matrix, each row from its first column that is not 0 on.
///
/// The first columns must not decrease from row to row: then the Cholesky factor has the same envelope, and
/// the work grows with the number of rows times the square of their length. Keeps its memory.
class EnvelopeMatrix {
 public:
  /// Makes the matrix 0, with the given first column of each row.
  void reset(std::span<std::size_t const> firstColumns);

  [[nodiscard]] std::size_t size() const { return firsts.size(); }
  /// Element of the lower triangle, inside the envelope.
  [[nodiscard]] double& at(std::size_t row, std::size_t column) { return values[begins[row] + column]; }
  /// Any element; 0 outside the envelope.
  [[nodiscard]] double operator()(std::size_t row, std::size_t column) const;

  /// Replaces the matrix by its Cholesky factor.
  ///
  /// @return false if the matrix is not positive definite; it counts as singular when a row is all but a
  ///         combination of the rows above
  bool factor();

  /// Solves with the factor.
  ///
  /// @param x           right side, 0 outside the rows `begin` to `end`; receives the solution in these rows
  /// @param begin, end  rows from which on, and up to which, the solution is wanted; taken for 0 from `end`
  /// on
  void solve(std::span<double> x, std::size_t begin, std::size_t end) const;

  /// x^T M x with the matrix M, before it is factored, for an x that is 0 outside the rows.
  [[nodiscard]] double quadraticForm(std::span<double const> x, std::size_t begin, std::size_t end) const;

 private:
  std::vector<std::size_t> firsts;
  std::vector<std::size_t> begins;  ///< index of column 0 of a row, as if it were stored; wraps around
  std::vector<double> values;
  std::vector<double> perPivot;  ///< reciprocals of the diagonal of the factor
};

}  // namespace FullWaveform
