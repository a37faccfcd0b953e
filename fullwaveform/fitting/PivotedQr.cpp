#include <fullwaveform/fitting/PivotedQr.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numeric>
#include <utility>

#include <fullwaveform/fitting/GaussianKernels.h>

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
    r(k, k) = reflectRest(sum, k);
    for (std::size_t j = k + 1; j < n; ++j) {
      r(k, j) = sum.column(order[j])[k];
    }
    qtf[k] = sum.column(n)[k];
  }
}

/// Reflects the pivot's column onto row `step`, and the other columns and the residual along with it; returns
/// what is left of the pivot's column. Where nothing is left to reflect, all stays.
double PivotedQr::reflectRest(GaussianSum& sum, std::size_t step) {
  // Whole lanes: some of the rows that are done lie before row `step`, and have been read.
  std::size_t const from = step / laneCount * laneCount;
  double* const column = sum.column(order[step]) + from;
  if (squares[step] <= std::numeric_limits<double>::min()) {
    return column[step - from];
  }
  columns.clear();
  for (std::size_t j = step + 1; j < size(); ++j) {
    columns.push_back(sum.column(order[j]) + from);
  }
  columns.push_back(sum.column(size()) + from);
  return gaussianKernels(instructionSet)
      .reflect({column, step - from, sum.stride() - from, squares[step], columns.data(), columns.size(),
                squares.data() + step + 1});
}

/// The column with the largest norm comes next; rows that are done move along with their column.
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
