#include <fullwaveform/pulsefit/Cholesky.h>

#include <algorithm>

namespace FullWaveform {
namespace {

/// Solves U x = x for the elements from `first` on.
void backSubstitute(std::span<double const> rows, std::size_t n, std::size_t stride, std::size_t first,
                    std::span<double> x) {
  for (std::size_t k = n; k-- > first;) {
    double const* const row = rows.data() + k * stride;
    double value = x[k];
    for (std::size_t i = k + 1; i < n; ++i) {
      value -= row[i] * x[i];
    }
    x[k] = value;
  }
}

}  // namespace

void choleskySolve(std::span<double const> rows, std::size_t n, std::size_t stride, std::span<double> x) {
  for (std::size_t k = 0; k < n; ++k) {
    x[k] = rows[k * stride + n];
  }
  backSubstitute(rows, n, stride, 0, x);
}

void choleskyInverse(std::span<double const> rows, std::size_t n, std::size_t stride,
                     std::span<double> inverse) {
  for (std::size_t j = 0; j < n; ++j) {
    std::span<double> const x = inverse.subspan(j * n, n);  // symmetric: row j is column j
    std::fill(x.begin() + static_cast<std::ptrdiff_t>(j), x.end(), 0.0);
    x[j] = 1.0;
    for (std::size_t k = j; k < n; ++k) {
      double const* const row = rows.data() + k * stride;
      double const value = x[k];
      for (std::size_t i = k + 1; i < n; ++i) {
        x[i] -= row[i] * value;
      }
      x[k] = value * row[k];
    }
    backSubstitute(rows, n, stride, j, x);
    for (std::size_t k = j + 1; k < n; ++k) {
      inverse[k * n + j] = x[k];
    }
  }
}

}  // namespace FullWaveform
