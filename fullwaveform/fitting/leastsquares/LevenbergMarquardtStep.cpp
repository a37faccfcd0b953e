#include <fullwaveform/fitting/leastsquares/LevenbergMarquardtStep.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>

#include <fullwaveform/fitting/leastsquares/Norm.h>

namespace FullWaveform {
namespace {

constexpr double tolerance = 0.1;  // of the length, relative to its bound
constexpr double minNormal = std::numeric_limits<double>::min();

/// The rotation of (a, b) to (hypot(a, b), 0).
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

  void apply(double& x, double& y) const {
    double const rotated = cosine * x + sine * y;
    y = cosine * y - sine * x;
    x = rotated;
  }

  double cosine;
  double sine;
};

std::uint64_t workOfDampedSolution(std::size_t parameters) {
  return std::uint64_t{parameters} * parameters * parameters;
}

}  // namespace

void LevenbergMarquardtStep::find(PivotedQr& qr, std::span<double const> scale, double bound,
                                  WorkMeter* meter) {
  for (auto* values : {&step, &scaled, &work, &diagonal, &row}) {
    values->resize(qr.size());
  }
  std::size_t const rank = qr.rank();
  solveUndamped(qr, rank);
  measure(scale);
  if (length - bound <= tolerance * bound) {
    damping = 0.0;
    return;
  }
  search(qr, scale, bound, startSearch(qr, scale, bound, rank == qr.size()), meter);
}

/// Returns bounds of the damping, the lower one from the undamped step (0 without full rank), the upper one
/// from the gradient, and moves the damping between them.
LevenbergMarquardtStep::Interval LevenbergMarquardtStep::startSearch(PivotedQr const& qr,
                                                                     std::span<double const> scale,
                                                                     double bound, bool hasFullRank) {
  Interval interval{0.0, 0.0};
  if (hasFullRank) {
    double const slope = slopeUndamped(qr, scale);
    interval.min = (length - bound) / bound / slope / slope;
  }
  double const gradient = gradientLength(qr, scale);
  interval.max = gradient / bound;
  if (interval.max == 0.0) {
    interval.max = minNormal / std::min(bound, tolerance);
  }
  damping = std::min(std::max(damping, interval.min), interval.max);
  if (damping == 0.0) {
    damping = gradient / length;
  }
  return interval;
}

/// Newton's method on the length as a function of the damping.
void LevenbergMarquardtStep::search(PivotedQr& qr, std::span<double const> scale, double bound,
                                    Interval interval, WorkMeter* meter) {
  constexpr int maxCorrections = 10;
  double excess = length - bound;
  for (int i = 1;; ++i) {
    if (damping == 0.0) {
      damping = std::max(minNormal, 0.001 * interval.max);
    }
    spend(meter, workOfDampedSolution(qr.size()));
    solveDamped(qr, scale);
    measure(scale);
    double const previous = excess;
    excess = length - bound;
    if (std::abs(excess) <= tolerance * bound ||
        (interval.min == 0.0 && excess <= previous && previous < 0.0) || i == maxCorrections) {
      return;
    }
    double const slope = slopeDamped(qr, scale);
    double const correction = excess / bound / slope / slope;
    if (excess > 0.0) {
      interval.min = std::max(interval.min, damping);
    }
    if (excess < 0.0) {
      interval.max = std::min(interval.max, damping);
    }
    damping = std::max(interval.min, damping + correction);
  }
}

/// Solves R step = Q^T f, with zeros for the columns beyond the rank.
void LevenbergMarquardtStep::solveUndamped(PivotedQr const& qr, std::size_t rank) {
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

/// Solves R step = Q^T f together with sqrt(damping) scale step = 0 by least squares: the rows of the damping
/// are rotated into a copy of R^T in the lower triangle.
void LevenbergMarquardtStep::solveDamped(PivotedQr& qr, std::span<double const> scale) {
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
      rotation.apply(diagonal[k], row[k]);
      rotation.apply(work[k], rightHandSide);
      for (std::size_t i = k + 1; i < n; ++i) {
        rotation.apply(qr.r(i, k), row[i]);
      }
    }
  }
  auto const firstZero =
      static_cast<std::size_t>(std::find(diagonal.begin(), diagonal.end(), 0.0) - diagonal.begin());
  std::fill(work.begin() + static_cast<std::ptrdiff_t>(firstZero), work.end(), 0.0);
  for (std::size_t j = firstZero; j-- > 0;) {
    for (std::size_t i = j + 1; i < firstZero; ++i) {
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

/// Length of R^-T P^T D^2 step / length; its square, times the length, is the rate at which the length falls
/// with the damping.
double LevenbergMarquardtStep::slopeUndamped(PivotedQr const& qr, std::span<double const> scale) {
  for (std::size_t j = 0; j < work.size(); ++j) {
    work[j] = scale[qr.order[j]] * scaled[qr.order[j]] / length;
    for (std::size_t i = 0; i < j; ++i) {
      work[j] -= qr.r(i, j) * work[i];
    }
    work[j] /= qr.r(j, j);
  }
  return norm(work);
}

/// The same with the triangle that results from R and the damping.
double LevenbergMarquardtStep::slopeDamped(PivotedQr const& qr, std::span<double const> scale) {
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
    double product = 0.0;
    for (std::size_t i = 0; i <= j; ++i) {
      product += qr.r(i, j) * qr.qtf[i];
    }
    work[j] = product / scale[qr.order[j]];
  }
  return norm(work);
}

}  // namespace FullWaveform
