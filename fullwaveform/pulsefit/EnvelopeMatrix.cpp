#include <fullwaveform/pulsefit/EnvelopeMatrix.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {
namespace {

constexpr double minPivot = 1e-10;  // of the diagonal

}  // namespace

void EnvelopeMatrix::reset(std::span<std::size_t const> firstColumns) {
  firsts.assign(firstColumns.begin(), firstColumns.end());
  begins.resize(firsts.size());
  std::size_t end = 0;
  for (std::size_t i = 0; i < firsts.size(); ++i) {
    begins[i] = end - firsts[i];
    end += i + 1 - firsts[i];
  }
  values.assign(end, 0.0);
}

double EnvelopeMatrix::operator()(std::size_t row, std::size_t column) const {
  std::size_t const lower = std::max(row, column);
  std::size_t const left = std::min(row, column);
  return left < firsts[lower] ? 0.0 : values[begins[lower] + left];
}

bool EnvelopeMatrix::factor() {
  for (std::size_t i = 0; i < size(); ++i) {
    double* const row = values.data() + (begins[i] + firsts[i]);
    double const diagonal = row[i - firsts[i]];
    for (std::size_t j = firsts[i]; j <= i; ++j) {
      double value = row[j - firsts[i]];
      for (std::size_t k = std::max(firsts[i], firsts[j]); k < j; ++k) {
        value -= row[k - firsts[i]] * values[begins[j] + k];
      }
      if (j < i) {
        row[j - firsts[i]] = value / values[begins[j] + j];
      } else if (value > minPivot * diagonal) {  // false for NaN
        row[j - firsts[i]] = std::sqrt(value);
      } else {
        return false;
      }
    }
  }
  return true;
}

void EnvelopeMatrix::solve(std::span<double> x, std::size_t begin, std::size_t end) const {
  for (std::size_t i = begin; i < end; ++i) {
    for (std::size_t k = std::max(firsts[i], begin); k < i; ++k) {
      x[i] -= values[begins[i] + k] * x[k];
    }
    x[i] /= values[begins[i] + i];
  }
  for (std::size_t i = end; i-- > begin;) {
    x[i] /= values[begins[i] + i];
    for (std::size_t k = std::max(firsts[i], begin); k < i; ++k) {
      x[k] -= values[begins[i] + k] * x[i];
    }
  }
}

}  // namespace FullWaveform
