#include <fullwaveform/fitting/leastsquares/LevenbergMarquardt.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>

#include <fullwaveform/fitting/leastsquares/Norm.h>

namespace FullWaveform {
namespace {

constexpr double initialBound = 100.0;  // of the first step, relative to the scaled start
constexpr int maxEvaluations = 20;
constexpr double squaresTolerance = 0.001;    // relative
constexpr double parameterTolerance = 0.001;  // relative
constexpr double minRatio = 1e-4;             // of actual to predicted reduction, to accept a step

double squareOf(double x) {
  return x * x;
}

std::uint64_t workOfEvaluation(std::size_t samples, std::size_t parameters) {
  return std::uint64_t{samples} * parameters;
}

/// Of the derivatives and their factorisation.
std::uint64_t workOfLinearisation(std::size_t samples, std::size_t parameters) {
  return workOfEvaluation(samples, parameters) * (parameters + 1);
}

}  // namespace

bool LevenbergMarquardt::isFittable(std::size_t samples, std::span<double const> parameters) {
  return !parameters.empty() && samples >= parameters.size() &&
         std::all_of(parameters.begin(), parameters.end(), [](double value) { return std::isfinite(value); });
}

int LevenbergMarquardt::minimise(std::span<double const> signal, int first, std::span<double> parameters,
                                 WorkMeter* meter) {
  if (!isFittable(signal.size(), parameters)) {
    return 0;
  }
  std::uint64_t const linearisation = workOfLinearisation(signal.size(), parameters.size());
  // The first linearisation is counted before memory is allocated for it.
  spend(meter, workOfEvaluation(signal.size(), parameters.size()) + linearisation);
  sum.setSignal(signal, first, parameters.size());
  for (auto* values : {&squares, &norms, &scale, &trial, &work}) {
    values->resize(parameters.size());
  }
  length = residualLength(sum.evaluate(parameters));
  int evaluations = 1;
  search.damping = 0.0;
  for (bool isFirst = true;; isFirst = false) {
    if (!isFirst) {
      spend(meter, linearisation);
    }
    linearise();
    if (isFirst) {
      initialiseScale(parameters);
    }
    gradient = scaledGradient();
    if (gradient <= 0.0) {
      return evaluations;
    }
    raiseScale();
    bool accepted = false;
    while (!accepted) {
      Reduction const reduction = tryStep(parameters, isFirst, meter);
      ++evaluations;
      adaptBound(reduction);
      accepted = reduction.ratio >= minRatio;
      if (accepted) {
        std::copy(trial.begin(), trial.end(), parameters.begin());
        parameterLength = scaledLength(parameters);
        length = trialLength;
      }
      if (hasConverged(reduction) || evaluations >= maxEvaluations) {
        return evaluations;
      }
    }
  }
}

void LevenbergMarquardt::linearise() {
  sum.differentiate(squares);
  for (std::size_t p = 0; p < norms.size(); ++p) {
    norms[p] = norm({sum.column(p), sum.samples()}, squares[p]);
  }
  qr.factorise(sum, squares);
}

void LevenbergMarquardt::initialiseScale(std::span<double const> parameters) {
  std::transform(norms.begin(), norms.end(), scale.begin(),
                 [](double length) { return length == 0.0 ? 1.0 : length; });
  parameterLength = scaledLength(parameters);
  bound = parameterLength == 0.0 ? initialBound : initialBound * parameterLength;
}

void LevenbergMarquardt::raiseScale() {
  for (std::size_t p = 0; p < scale.size(); ++p) {
    scale[p] = std::max(scale[p], norms[p]);
  }
}

/// Sets the trial parameters and evaluates the sum at them.
LevenbergMarquardt::Reduction LevenbergMarquardt::tryStep(std::span<double const> parameters, bool isFirst,
                                                          WorkMeter* meter) {
  search.find(qr, scale, bound, meter);
  spend(meter, workOfEvaluation(sum.samples(), parameters.size()));
  std::transform(parameters.begin(), parameters.end(), search.step.begin(), trial.begin(), std::minus<>());
  stepLength = search.length;
  if (isFirst) {
    bound = std::min(bound, stepLength);
  }
  trialLength = residualLength(sum.evaluate(trial));
  return {0.1 * trialLength < length ? 1.0 - squareOf(trialLength / length) : -1.0,
          squareOf(linearisedChange() / length), squareOf(std::sqrt(search.damping) * stepLength / length)};
}

void LevenbergMarquardt::adaptBound(Reduction const& reduction) {
  if (reduction.ratio <= 0.25) {
    double shrink = 0.5;
    if (reduction.actual < 0.0) {
      shrink = 0.5 * reduction.slope / (reduction.slope + 0.5 * reduction.actual);
    }
    if (0.1 * trialLength >= length || shrink < 0.1) {
      shrink = 0.1;
    }
    bound = shrink * std::min(bound, stepLength / 0.1);
    search.damping /= shrink;
  } else if (search.damping == 0.0 || !(reduction.ratio < 0.75)) {
    bound = stepLength / 0.5;
    search.damping *= 0.5;
  }
}

bool LevenbergMarquardt::hasConverged(Reduction const& reduction) const {
  bool const isAtMinimum = std::abs(reduction.actual) <= squaresTolerance &&
                           reduction.predicted <= squaresTolerance && 0.5 * reduction.ratio <= 1.0;
  return isAtMinimum || bound <= parameterTolerance * parameterLength ||
         gradient <= std::numeric_limits<double>::epsilon();
}

double LevenbergMarquardt::residualLength(double squaresOfResidual) {
  return norm({sum.column(trial.size()), sum.samples()}, squaresOfResidual);
}

double LevenbergMarquardt::scaledLength(std::span<double const> values) {
  std::transform(values.begin(), values.end(), scale.begin(), work.begin(), std::multiplies<>());
  return norm(work);
}

double LevenbergMarquardt::scaledGradient() {
  if (length == 0.0) {
    return 0.0;
  }
  std::transform(qr.qtf.begin(), qr.qtf.end(), work.begin(), [this](double value) { return value / length; });
  double largest = 0.0;
  for (std::size_t j = 0; j < qr.size(); ++j) {
    double product = 0.0;
    for (std::size_t i = 0; i <= j; ++i) {
      product += qr.r(i, j) * work[i];
    }
    double const columnNorm = norms[qr.order[j]];
    if (columnNorm != 0.0) {
      largest = std::max(largest, std::abs(product / columnNorm));
    }
  }
  return largest;
}

/// Length of the change of the linearised residual.
double LevenbergMarquardt::linearisedChange() {
  for (std::size_t i = 0; i < work.size(); ++i) {
    work[i] = 0.0;
    for (std::size_t j = i; j < work.size(); ++j) {
      work[i] += qr.r(i, j) * search.step[qr.order[j]];
    }
  }
  return norm(work);
}

}  // namespace FullWaveform
