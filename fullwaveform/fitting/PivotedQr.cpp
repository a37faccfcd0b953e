#include <fullwaveform/fitting/PivotedQr.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

#include <fullwaveform/fitting/GaussianKernels.h>

namespace FullWaveform {

void PivotedQr::factorise(GaussianSum& sum, std::span<double const> squares) {
  std::size_t const n = squares.size();
  order.resize(n);
  std::iota(order.begin(), order.end(), std::size_t{0});
  qtf.resize(n);
  triangle.resize(n * n);
  norms.resize(n);
  std::transform(squares.begin(), squares.end(), norms.begin(),
                 [](double square) { return std::sqrt(square); });
  norms0 = norms;
  reflector.resize(sum.stride());
  for (std::size_t k = 0; k < n; ++k) {
    choosePivot(k);
    r(k, k) = reflectRest(sum, k);
    for (std::size_t j = k + 1; j < n; ++j) {
      r(k, j) = sum.column(order[j])[k];
    }
    qtf[k] = sum.column(n)[k];
    downdateNorms(sum, k);
  }
}

/// Reflects the pivot's column onto row `step`, and the other columns and the residual along with it; returns
/// what is left of the pivot's column. A column that is nothing below its row stays.
double PivotedQr::reflectRest(GaussianSum& sum, std::size_t step) {
  GaussianKernels const& kernels = gaussianKernels(instructionSet);
  // Whole lanes: some of the rows that are done lie before row `step`, and stay.
  std::size_t const from = step / laneCount * laneCount;
  std::size_t const rows = sum.stride() - from;
  double const* const column = sum.column(order[step]);
  double const pivot = column[step];
  double const tail = kernels.copyTail(column + from, reflector.data(), step - from, rows);
  if (!(tail > std::numeric_limits<double>::min())) {
    return pivot;
  }
  double const beta = std::copysign(std::sqrt(pivot * pivot + tail), -pivot);
  // Divided to a leading 1: columns that hold the same single sample, of echoes narrower than the sampling
  // interval, then cancel without a remainder. What rounding would leave of them steers a step nearly
  // without damping.
  auto const values = std::span(reflector).first(rows);
  std::transform(values.begin(), values.end(), values.begin(),
                 [divisor = pivot - beta](double value) { return value / divisor; });
  reflector[step - from] = 1.0;
  toReflect.clear();
  for (std::size_t j = step + 1; j < size(); ++j) {
    toReflect.push_back(sum.column(order[j]) + from);
  }
  toReflect.push_back(sum.column(size()) + from);
  kernels.reflect(reflector.data(), (beta - pivot) / beta, rows, toReflect.data(), toReflect.size());
  return beta;
}

/// The column with the largest norm comes next; rows that are done move along with their column.
void PivotedQr::choosePivot(std::size_t step) {
  auto const begin = norms.begin() + static_cast<std::ptrdiff_t>(step);
  auto const chosen = static_cast<std::size_t>(std::max_element(begin, norms.end()) - norms.begin());
  if (chosen == step) {
    return;
  }
  std::swap(order[step], order[chosen]);
  std::swap(norms[step], norms[chosen]);
  std::swap(norms0[step], norms0[chosen]);
  for (std::size_t row = 0; row < step; ++row) {
    std::swap(r(row, step), r(row, chosen));
  }
}

void PivotedQr::downdateNorms(GaussianSum& sum, std::size_t step) {
  constexpr double tooMuchLost = 0x1p-26;  // the root of the resolution of doubles
  for (std::size_t j = step + 1; j < size(); ++j) {
    if (norms[j] == 0.0) {
      continue;
    }
    double const share = std::abs(r(step, j)) / norms[j];
    double const left = std::max((1.0 + share) * (1.0 - share), 0.0);
    double const sinceComputed = norms[j] / norms0[j];
    if (left * sinceComputed * sinceComputed <= tooMuchLost) {
      double const* const column = sum.column(order[j]);
      norms[j] =
          std::sqrt(gaussianKernels(instructionSet).copyTail(column, reflector.data(), step, sum.stride()));
      norms0[j] = norms[j];
    } else {
      norms[j] *= std::sqrt(left);
    }
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
