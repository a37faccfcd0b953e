#include <fullwaveform/fitting/leastsquares/PivotedQr.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numeric>
#include <utility>

#include <fullwaveform/fitting/leastsquares/GaussianKernels.h>

namespace FullWaveform {

void PivotedQr::factorise(GaussianSum& sum, std::span<double const> squaresOfColumns) {
  std::size_t const n = squaresOfColumns.size();
  order.resize(n);
  std::iota(order.begin(), order.end(), std::size_t{0});
  qtf.resize(n);
  triangle.resize(n * n);
  squares.resize(n + 1);
  std::copy(squaresOfColumns.begin(), squaresOfColumns.end(), squares.begin());
  for (std::size_t k = 0; k < n; ++k) {
    choosePivot(k);
    r(k, k) = applyReflection(sum, k);
    for (std::size_t j = k + 1; j < n; ++j) {
      r(k, j) = sum.column(order[j])[k];
    }
    qtf[k] = sum.column(n)[k];
  }
}

/// Reflects the pivot's column onto row `step`, and applies the reflection to the other columns and the
/// residual; returns the diagonal element of R. No-op for a zero column.
double PivotedQr::applyReflection(GaussianSum& sum, std::size_t step) {
  // Kernels process whole lanes, which may begin with rows that are finished and already copied to R.
  std::size_t const firstRow = step / laneCount * laneCount;
  double* const column = sum.column(order[step]) + firstRow;
  if (squares[step] <= std::numeric_limits<double>::min()) {
    return column[step - firstRow];
  }
  columns.clear();
  for (std::size_t j = step + 1; j < size(); ++j) {
    columns.push_back(sum.column(order[j]) + firstRow);
  }
  columns.push_back(sum.column(size()) + firstRow);
  return gaussianKernels(instructionSet)
      .reflect({column, step - firstRow, sum.stride() - firstRow, squares[step], columns.data(),
                columns.size(), squares.data() + step + 1});
}

/// Makes the column with the largest remaining norm the next; its finished rows in R move along.
void PivotedQr::choosePivot(std::size_t step) {
  auto const begin = squares.begin() + static_cast<std::ptrdiff_t>(step);
  auto const chosen = static_cast<std::size_t>(std::max_element(begin, squares.end() - 1) - squares.begin());
  if (chosen == step) {
    return;
  }
  std::swap(order[step], order[chosen]);
  std::swap(squares[step], squares[chosen]);
  for (std::size_t row = 0; row < step; ++row) {
    std::swap(r(row, step), r(row, chosen));
  }
}

std::size_t PivotedQr::rank() const {
  std::size_t const n = size();
  double largest = 0.0;
  for (std::size_t k = 0; k < n; ++k) {
    largest = std::max(largest, std::abs(r(k, k)));
  }
  double const negligible = largest * std::numeric_limits<double>::epsilon() * static_cast<double>(n);
  std::size_t rank = 0;
  for (std::size_t k = 0; k < n; ++k) {
    rank += std::abs(r(k, k)) > negligible ? 1U : 0U;
  }
  return rank;
}

}  // namespace FullWaveform
