#include <fullwaveform/pulsefit/Cholesky.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {

bool choleskyFactor(std::span<double> matrix, std::size_t n) {
  for (std::size_t j = 0; j < n; ++j) {
    double diagonal = matrix[j * n + j];
    for (std::size_t k = 0; k < j; ++k) {
      diagonal -= matrix[j * n + k] * matrix[j * n + k];
    }
    if (!(diagonal > 0.0)) {  // negated so that NaN counts as singular
      return false;
    }
    double const root = std::sqrt(diagonal);
    matrix[j * n + j] = root;
    for (std::size_t i = j + 1; i < n; ++i) {
      double value = matrix[i * n + j];
      for (std::size_t k = 0; k < j; ++k) {
        value -= matrix[i * n + k] * matrix[j * n + k];
      }
      matrix[i * n + j] = value / root;
    }
  }
  return true;
}

void choleskySolve(std::span<double const> factor, std::size_t n, std::span<double> x) {
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t k = 0; k < i; ++k) {
      x[i] -= factor[i * n + k] * x[k];
    }
    x[i] /= factor[i * n + i];
  }
  for (std::size_t i = n; i-- > 0;) {
    for (std::size_t k = i + 1; k < n; ++k) {
      x[i] -= factor[k * n + i] * x[k];
    }
    x[i] /= factor[i * n + i];
  }
}

void choleskyInverse(std::span<double const> factor, std::size_t n, std::span<double> inverse) {
  for (std::size_t j = 0; j < n; ++j) {
    std::span<double> const row = inverse.subspan(j * n, n);  // symmetric: row j is column j
    std::fill(row.begin(), row.end(), 0.0);
    row[j] = 1.0;
    choleskySolve(factor, n, row);
  }
}

}  // namespace FullWaveform
