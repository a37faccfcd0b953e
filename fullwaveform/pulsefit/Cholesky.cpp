#include <fullwaveform/pulsefit/Cholesky.h>

#include <algorithm>

namespace FullWaveform {
namespace {

/// Solves U x = x.
void backSubstitute(std::span<double const> rows, std::size_t n, std::size_t stride, std::span<double> x) {
  for (std::size_t k = n; k-- > 0;) {
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
  backSubstitute(rows, n, stride, x);
}

void choleskyInverse(std::span<double const> rows, std::size_t n, std::size_t stride,
                     std::span<double> inverse) {
  for (std::size_t j = 0; j < n; ++j) {
    std::span<double> const x = inverse.subspan(j * n, n);  // symmetric: row j is column j
    std::fill(x.begin(), x.end(), 0.0);
    x[j] = 1.0;
    for (std::size_t k = j; k < n; ++k) {
      double const* const row = rows.data() + k * stride;
      double const value = x[k];
      for (std::size_t i = k + 1; i < n; ++i) {
        x[i] -= row[i] * value;
      }
      x[k] = value * row[k];
    }
    backSubstitute(rows, n, stride, x);
  }
}

}  // namespace FullWaveform
