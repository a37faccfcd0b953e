#include <fullwaveform/pulsefit/Cholesky.h>

#include <algorithm>

namespace FullWaveform {

bool choleskyFactor(std::span<double> matrix, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    double* const row = matrix.data() + i * n;
    for (std::size_t j = 1; j < i; ++j) {
      double const* const above = matrix.data() + j * n;
      double value = row[j];
      for (std::size_t k = 0; k < j; ++k) {
        value -= row[k] * above[k];
      }
      row[j] = value;
    }
    double diagonal = row[i];
    for (std::size_t k = 0; k < i; ++k) {
      double const scaled = row[k] * matrix[k * n + k];
      diagonal -= row[k] * scaled;
      row[k] = scaled;
    }
    if (!(diagonal > 0.0)) {  // negated so that NaN counts as singular
      return false;
    }
    row[i] = 1.0 / diagonal;
  }
  return true;
}

void choleskySolve(std::span<double const> factor, std::size_t n, std::span<double> x) {
  for (std::size_t i = 1; i < n; ++i) {
    double const* const row = factor.data() + i * n;
    double value = x[i];
    for (std::size_t k = 0; k < i; ++k) {
      value -= row[k] * x[k];
    }
    x[i] = value;
  }
  for (std::size_t i = 0; i < n; ++i) {
    x[i] *= factor[i * n + i];
  }
  for (std::size_t i = n; i-- > 1;) {
    double const* const row = factor.data() + i * n;
    for (std::size_t k = 0; k < i; ++k) {
      x[k] -= row[k] * x[i];
    }
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
