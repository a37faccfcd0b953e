#include <fullwaveform/fitting/LevenbergMarquardtStep.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <limits>

#include <fullwaveform/fitting/Norm.h>

namespace FullWaveform {
namespace {

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
  constexpr double tolerance = 0.1;
  constexpr int mostCorrections = 10;
  constexpr double dwarf = std::numeric_limits<double>::min();
  std::size_t const n = qr.size();
  for (auto* values : {&step, &scaled, &work, &diagonal, &row}) {
    values->resize(n);
  }
  std::size_t const rank = qr.rank();
  findUndamped(qr, rank);
  double length = scaledLength(scale);
  double excess = length - bound;
  if (excess <= tolerance * bound) {
    damping = 0.0;
    return;
  }
  // Bounds of the damping: the undamped step gives the lower one, the gradient the upper one.
  double lowest = 0.0;
  if (rank == n) {
    double const fall = fallUndamped(qr, scale, length);
    lowest = excess / bound / fall / fall;
  }
  double const gradient = gradientLength(qr, scale);
  double highest = gradient / bound;
  if (highest == 0.0) {
    highest = dwarf / std::min(bound, tolerance);
  }
  damping = std::min(std::max(damping, lowest), highest);
  if (damping == 0.0) {
    damping = gradient / length;
  }
  for (int i = 1;; ++i) {
    if (damping == 0.0) {
      damping = std::max(dwarf, 0.001 * highest);
    }
    findDamped(qr, scale);
    length = scaledLength(scale);
    double const before = excess;
    excess = length - bound;
    if (std::abs(excess) <= tolerance * bound || (lowest == 0.0 && excess <= before && before < 0.0) ||
        i == mostCorrections) {
      return;
    }
    double const fall = fallDamped(qr, scale, length);
    double const correction = excess / bound / fall / fall;
    if (excess > 0.0) {
      lowest = std::max(lowest, damping);
    }
    if (excess < 0.0) {
      highest = std::min(highest, damping);
    }
    damping = std::max(lowest, damping + correction);
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

double LevenbergMarquardtStep::scaledLength(std::span<double const> scale) {
  std::transform(step.begin(), step.end(), scale.begin(), scaled.begin(), std::multiplies<>());
  return norm(scaled);
}

/// Length of R^-T P^T D^2 step / length, whose square tells how fast the length falls with the damping.
double LevenbergMarquardtStep::fallUndamped(PivotedQr const& qr, std::span<double const> scale,
                                            double length) {
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
double LevenbergMarquardtStep::fallDamped(PivotedQr const& qr, std::span<double const> scale, double length) {
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
