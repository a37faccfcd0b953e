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
  perPivot.resize(size());
  for (std::size_t i = 0; i < size(); ++i) {
    double* const row = values.data() + (begins[i] + firsts[i]);
    double const diagonal = row[i - firsts[i]];
    for (std::size_t j = firsts[i]; j <= i; ++j) {
      double value = row[j - firsts[i]];
      for (std::size_t k = std::max(firsts[i], firsts[j]); k < j; ++k) {
        value -= row[k - firsts[i]] * values[begins[j] + k];
      }
      if (j < i) {
        row[j - firsts[i]] = value * perPivot[j];
      } else if (value > minPivot * diagonal) {  // false for NaN
        row[j - firsts[i]] = std::sqrt(value);
        perPivot[i] = 1.0 / row[j - firsts[i]];
      } else {
        return false;
      }
    }
  }
  return true;
}

void EnvelopeMatrix::solve(std::span<double> x, std::size_t begin, std::size_t end) const {
  for (std::size_t i = begin; i < end; ++i) {
    double const* const row = values.data() + (begins[i] + firsts[i]);
    std::size_t const first = std::max(firsts[i], begin);
    double value = x[i];
    for (std::size_t k = first; k < i; ++k) {
      value -= row[k - firsts[i]] * x[k];
    }
    x[i] = value * perPivot[i];
  }
  for (std::size_t i = end; i-- > begin;) {
    double const* const row = values.data() + (begins[i] + firsts[i]);
    double const value = x[i] * perPivot[i];
    x[i] = value;
    for (std::size_t k = std::max(firsts[i], begin); k < i; ++k) {
      x[k] -= row[k - firsts[i]] * value;
    }
  }
}

double EnvelopeMatrix::quadraticForm(std::span<double const> x, std::size_t begin, std::size_t end) const {
  double sum = 0.0;
  for (std::size_t i = begin; i < end; ++i) {
    double const* const row = values.data() + (begins[i] + firsts[i]);
    double ofRow = 0.5 * row[i - firsts[i]] * x[i];
    for (std::size_t k = std::max(firsts[i], begin); k < i; ++k) {
      ofRow += row[k - firsts[i]] * x[k];
    }
    sum += 2.0 * x[i] * ofRow;
  }
  return sum;
}

}  // namespace FullWaveform
