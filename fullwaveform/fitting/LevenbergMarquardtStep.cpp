#include <fullwaveform/fitting/LevenbergMarquardtStep.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <limits>

#include <fullwaveform/fitting/Norm.h>

namespace FullWaveform {
namespace {

constexpr double tolerance = 0.1;  // of the bound
constexpr double dwarf = std::numeric_limits<double>::min();

/// Cosine and sine of the rotation that turns (a, b) into (hypot, 0).
struct Rotation {
  Rotation(double a, double b) {
    if (std::abs(a) > std::abs(b)) {
      double const tangent = b / a;
      cosine = 1.0 / std::sqrt(1.0 + tangent * tangent);
      sine = cosine * tangent;
    } else {
      double const cotangent = a / b;
      sine = 1.0 / std::sqrt(1.0 + cotangent * cotangent);
      cosine = sine * cotangent;
    }
  }

  void turn(double& x, double& y) const {
    double const turned = cosine * x + sine * y;
    y = cosine * y - sine * x;
    x = turned;
  }

  double cosine;
  double sine;
};

}  // namespace

void LevenbergMarquardtStep::find(PivotedQr& qr, std::span<double const> scale, double bound) {
  for (auto* values : {&step, &scaled, &work, &diagonal, &row}) {
    values->resize(qr.size());
  }
  std::size_t const rank = qr.rank();
  findUndamped(qr, rank);
  measure(scale);
  if (length - bound <= tolerance * bound) {
    damping = 0.0;
    return;
  }
  search(qr, scale, bound, startSearch(qr, scale, bound, rank == qr.size()));
}

/// Bounds of the damping: the undamped step gives the lower one, the gradient the upper one. The damping
/// starts between them.
LevenbergMarquardtStep::Range LevenbergMarquardtStep::startSearch(PivotedQr const& qr,
                                                                  std::span<double const> scale, double bound,
                                                                  bool isRegular) {
  Range range{0.0, 0.0};
  if (isRegular) {
    double const fall = fallUndamped(qr, scale);
    range.lowest = (length - bound) / bound / fall / fall;
  }
  double const gradient = gradientLength(qr, scale);
  range.highest = gradient / bound;
  if (range.highest == 0.0) {
    range.highest = dwarf / std::min(bound, tolerance);
  }
  damping = std::min(std::max(damping, range.lowest), range.highest);
  if (damping == 0.0) {
    damping = gradient / length;
  }
  return range;
}

/// Newton's method on the length as a function of the damping.
void LevenbergMarquardtStep::search(PivotedQr& qr, std::span<double const> scale, double bound, Range range) {
  constexpr int mostCorrections = 10;
  double excess = length - bound;
  for (int i = 1;; ++i) {
    if (damping == 0.0) {
      damping = std::max(dwarf, 0.001 * range.highest);
    }
    findDamped(qr, scale);
    measure(scale);
    double const before = excess;
    excess = length - bound;
    if (std::abs(excess) <= tolerance * bound || (range.lowest == 0.0 && excess <= before && before < 0.0) ||
        i == mostCorrections) {
      return;
    }
    double const fall = fallDamped(qr, scale);
    double const correction = excess / bound / fall / fall;
    if (excess > 0.0) {
      range.lowest = std::max(range.lowest, damping);
    }
    if (excess < 0.0) {
      range.highest = std::min(range.highest, damping);
    }
    damping = std::max(range.lowest, damping + correction);
  }
}

/// R step = Q^T f, with zeros for the columns that the rank leaves out.
void LevenbergMarquardtStep::findUndamped(PivotedQr const& qr, std::size_t rank) {
  std::fill(std::copy_n(qr.qtf.begin(), rank, work.begin()), work.end(), 0.0);
  for (std::size_t j = rank; j-- > 0;) {
    work[j] /= qr.r(j, j);
    for (std::size_t i = 0; i < j; ++i) {
      work[i] -= qr.r(i, j) * work[j];
    }
  }
  for (std::size_t j = 0; j < work.size(); ++j) {
    step[qr.order[j]] = work[j];
  }
}

/// The least-squares solution of R step = Q^T f together with sqrt(damping) scale step = 0: the rows of the
/// damping are rotated into a copy of R^T in the lower triangle.
void LevenbergMarquardtStep::findDamped(PivotedQr& qr, std::span<double const> scale) {
  std::size_t const n = qr.size();
  double const root = std::sqrt(damping);
  for (std::size_t j = 0; j < n; ++j) {
    work[j] = qr.qtf[j];
    diagonal[j] = qr.r(j, j);
    for (std::size_t i = j + 1; i < n; ++i) {
      qr.r(i, j) = qr.r(j, i);
    }
  }
  for (std::size_t j = 0; j < n; ++j) {
    std::fill(row.begin() + static_cast<std::ptrdiff_t>(j), row.end(), 0.0);
    row[j] = root * scale[qr.order[j]];
    double rightHandSide = 0.0;
    for (std::size_t k = j; k < n; ++k) {
      if (row[k] == 0.0) {
        continue;
      }
      Rotation const rotation(diagonal[k], row[k]);
      rotation.turn(diagonal[k], row[k]);
      rotation.turn(work[k], rightHandSide);
      for (std::size_t i = k + 1; i < n; ++i) {
        rotation.turn(qr.r(i, k), row[i]);
      }
    }
  }
  auto const regular =
      static_cast<std::size_t>(std::find(diagonal.begin(), diagonal.end(), 0.0) - diagonal.begin());
  std::fill(work.begin() + static_cast<std::ptrdiff_t>(regular), work.end(), 0.0);
  for (std::size_t j = regular; j-- > 0;) {
    for (std::size_t i = j + 1; i < regular; ++i) {
      work[j] -= qr.r(i, j) * work[i];
    }
    work[j] /= diagonal[j];
  }
  for (std::size_t j = 0; j < n; ++j) {
    step[qr.order[j]] = work[j];
  }
}

void LevenbergMarquardtStep::measure(std::span<double const> scale) {
  std::transform(step.begin(), step.end(), scale.begin(), scaled.begin(), std::multiplies<>());
  length = norm(scaled);
}

/// Length of R^-T P^T D^2 step / length, whose square tells how fast the length falls with the damping.
double LevenbergMarquardtStep::fallUndamped(PivotedQr const& qr, std::span<double const> scale) {
  for (std::size_t j = 0; j < work.size(); ++j) {
    work[j] = scale[qr.order[j]] * scaled[qr.order[j]] / length;
    for (std::size_t i = 0; i < j; ++i) {
      work[j] -= qr.r(i, j) * work[i];
    }
    work[j] /= qr.r(j, j);
  }
  return norm(work);
}

/// The same with the triangle that the damping made of R.
double LevenbergMarquardtStep::fallDamped(PivotedQr const& qr, std::span<double const> scale) {
  std::size_t const n = work.size();
  for (std::size_t j = 0; j < n; ++j) {
    work[j] = scale[qr.order[j]] * (scaled[qr.order[j]] / length);
  }
  for (std::size_t j = 0; j < n; ++j) {
    work[j] /= diagonal[j];
    for (std::size_t i = j + 1; i < n; ++i) {
      work[i] -= qr.r(i, j) * work[j];
    }
  }
  return norm(work);
}

/// Length of the scaled gradient, P^T D^-1 J^T f.
double LevenbergMarquardtStep::gradientLength(PivotedQr const& qr, std::span<double const> scale) {
  for (std::size_t j = 0; j < work.size(); ++j) {
    double along = 0.0;
    for (std::size_t i = 0; i <= j; ++i) {
      along += qr.r(i, j) * qr.qtf[i];
    }
    work[j] = along / scale[qr.order[j]];
  }
  return norm(work);
}

}  // namespace FullWaveform
