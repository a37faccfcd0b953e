#include <fullwaveform/pulsefit/EchoFit.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include <fullwaveform/pulsefit/Cholesky.h>

namespace FullWaveform {
namespace {

constexpr int maxIterations = 15;
constexpr int maxTrials = 6;
constexpr double negligibleGain = 0.02;  // of the energy: a seventh of a standard deviation
constexpr double negligibleMove = 0.01;  // samples
constexpr double maxMove = 1.0;          // samples in one step
constexpr double maxVarianceStep = 2.0;  // samples squared in one step
constexpr double minAmplitudeRatio = 0.05;
constexpr double minAmplitude = 0.005;  // counts
constexpr double reach = 3.0;           // samples by which an echo may lie outside the waveform

std::size_t wholeLanes(std::size_t count) {
  return (count + laneCount - 1) / laneCount * laneCount;
}

std::size_t parametersOf(Hypothesis const& hypothesis) {
  return 1 + 3 * hypothesis.count;
}

}  // namespace

EchoFit::EchoFit(PulseModel const& model, PulseTable const& table, InstructionSet set)
    : model(model),
      table(&table),
      kernels(&pulseKernels(set)),
      prior(model.varianceSpread, model.widening),
      noiseDeviation(model.noiseRms * model.noiseCorrelation),
      baselinePrior(std::max(2.0 * model.baselineSpread, 0.3 * model.noiseRms)),
      scatter(model.scatter) {}

void EchoFit::setSignal(std::span<unsigned short const> samples, double limit) {
  size = samples.size();
  // Columns are written in whole lanes, followed by one more of zeros.
  stride = wholeLanes(size) + 2 * laneCount;
  signal.assign(stride, 0.0);
  clippedSamples.clear();
  for (std::size_t i = 0; i < size; ++i) {
    signal[i] = static_cast<double>(samples[i]);
    if (signal[i] >= limit) {
      clippedSamples.push_back(static_cast<std::uint32_t>(i));
    }
  }
  resize(current);
  resize(trial);
}

void EchoFit::resize(Evaluation& evaluation) const {
  evaluation.model.assign(stride, 0.0);
  evaluation.residual.assign(stride, 0.0);
  evaluation.weights.assign(stride, 0.0);
  constexpr std::size_t columnsPerEcho = 6;
  evaluation.memory.resize(std::max(evaluation.memory.size(), columnsPerEcho * maxFittedEchoes * stride));
  double* next = evaluation.memory.data();
  for (Column& column : evaluation.columns) {
    for (double** const part :
         {&column.plain.value, &column.plain.byLag, &column.plain.byVariance, &column.weighted.value,
          &column.weighted.byLag, &column.weighted.byVariance}) {
      *part = next;
      next += stride;
    }
  }
}

/// Sets the columns of an echo. Zeros follow its last sample, because products with the columns of another
/// echo run over the end by less than `laneCount`.
void EchoFit::place(EchoState const& echo, std::size_t index, Evaluation& at) const {
  Column& column = at.columns[index];
  PulseTable::Place const place = table->placeAt(echo.position, echo.variance);
  int const first = std::max(place.first, 0);
  int const end = std::min(place.first + place.count, static_cast<int>(size));
  if (end <= first) {
    column.first = 0;
    column.count = 0;
    return;
  }
  column.first = static_cast<std::size_t>(first);
  column.count = static_cast<std::size_t>(end - first);
  std::size_t const written = wholeLanes(column.count);
  PulseColumns const to{column.plain.value + column.first, column.plain.byLag + column.first,
                        column.plain.byVariance + column.first};
  kernels->interpolate(place, static_cast<std::size_t>(first - place.first), written, to);
  for (double* const part : {to.value, to.byLag, to.byVariance}) {
    std::fill(part + column.count, part + written + laneCount, 0.0);
  }
}

/// Sets 1 / s^2 of all samples, and returns the sum of ln(s^2 / noise^2). The variance is constant between
/// the ends of the pulses.
double EchoFit::setWeights(Hypothesis const& hypothesis, Evaluation& at) const {
  double const quiet = noiseDeviation * noiseDeviation;
  if (scatter == 0.0 || hypothesis.count == 0) {
    std::fill_n(at.weights.begin(), size, 1.0 / quiet);
    return 0.0;
  }
  std::array<std::size_t, 2 * maxFittedEchoes + 2> ends{};
  std::size_t count = 0;
  ends[count++] = 0;
  ends[count++] = size;
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    ends[count++] = at.columns[k].first;
    ends[count++] = at.columns[k].first + at.columns[k].count;
  }
  std::sort(ends.begin(), ends.begin() + static_cast<std::ptrdiff_t>(count));
  double logarithms = 0.0;
  for (std::size_t e = 0; e + 1 < count; ++e) {
    if (ends[e] == ends[e + 1]) {
      continue;
    }
    double variance = quiet;
    for (std::size_t k = 0; k < hypothesis.count; ++k) {
      Column const& column = at.columns[k];
      if (ends[e] >= column.first && ends[e] < column.first + column.count) {
        double const deviation = scatter * hypothesis.echoes[k].amplitude;
        variance += deviation * deviation;
      }
    }
    std::fill(at.weights.begin() + static_cast<std::ptrdiff_t>(ends[e]),
              at.weights.begin() + static_cast<std::ptrdiff_t>(ends[e + 1]), 1.0 / variance);
    logarithms += static_cast<double>(ends[e + 1] - ends[e]) * std::log(variance / quiet);
  }
  return logarithms;
}

void EchoFit::evaluateAt(Hypothesis& hypothesis, Evaluation& at) {
  std::fill_n(at.model.begin(), size, hypothesis.baseline);
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    place(hypothesis.echoes[k], k, at);
    Column const& column = at.columns[k];
    kernels->add(hypothesis.echoes[k].amplitude, column.plain.value + column.first, wholeLanes(column.count),
                 at.model.data() + column.first);
  }
  double const logarithms = setWeights(hypothesis, at);
  for (std::uint32_t const i : clippedSamples) {
    if (at.model[i] >= signal[i]) {
      at.weights[i] = 0.0;
    }
  }
  hypothesis.chiSquare = kernels->subtract(signal.data(), at.model.data(), at.weights.data(),
                                           wholeLanes(size), at.residual.data());
  double const offset = (hypothesis.baseline - model.baseline) / baselinePrior;
  hypothesis.energy = hypothesis.chiSquare + logarithms + offset * offset;
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    if (!hypothesis.echoes[k].hasFreeWidth) {
      hypothesis.energy += prior.at(hypothesis.echoes[k].variance).value;
    }
  }
  hypothesis.cost = costOf(hypothesis);
}

void EchoFit::evaluate(Hypothesis& hypothesis) {
  evaluateAt(hypothesis, current);
}

double EchoFit::costOf(Hypothesis const& hypothesis) const {
  double cost = hypothesis.energy;
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    cost += echoCost + (hypothesis.echoes[k].hasFreeWidth ? widthCost : 0.0);
  }
  return cost;
}

/// Gauss-Newton approximation of the second derivatives of half the energy, and the descent direction.
void EchoFit::normalEquations(Hypothesis const& hypothesis, Evaluation& at, FitMatrix& matrix,
                              Gradient& gradient) {
  std::size_t const n = parametersOf(hypothesis);
  double weightSum = 0.0;
  double residualSum = 0.0;
  for (std::size_t i = 0; i < size; ++i) {
    weightSum += at.weights[i];
    residualSum += at.weights[i] * at.residual[i];
  }
  double const perBaseline = 1.0 / (baselinePrior * baselinePrior);
  matrix[0] = weightSum + perBaseline;
  gradient[0] = residualSum - (hypothesis.baseline - model.baseline) * perBaseline;
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    EchoState const& echo = hypothesis.echoes[k];
    Column& column = at.columns[k];
    // The model changes by -amplitude x slope when the echo moves, by the pulse, and by amplitude x d/dv.
    double const factors[3] = {-echo.amplitude, 1.0, echo.amplitude};
    auto const shifted = [](PulseColumns const& columns, std::size_t by) {
      return PulseColumns{columns.value + by, columns.byLag + by, columns.byVariance + by};
    };
    EchoProducts const products = kernels->weigh(
        shifted(column.plain, column.first), at.weights.data() + column.first,
        at.residual.data() + column.first, wholeLanes(column.count), shifted(column.weighted, column.first));
    for (double* const part : {column.weighted.value, column.weighted.byLag, column.weighted.byVariance}) {
      std::fill_n(part + column.first + wholeLanes(column.count), laneCount, 0.0);
    }
    std::size_t const row = 1 + 3 * k;
    for (std::size_t a = 0; a < 3; ++a) {
      gradient[row + a] = factors[a] * products.residuals[a];
      matrix[(row + a) * n] = factors[a] * products.sums[a];
    }
    for (std::size_t l = 0; l <= k; ++l) {
      Column const& other = at.columns[l];
      double const otherFactors[3] = {-hypothesis.echoes[l].amplitude, 1.0, hypothesis.echoes[l].amplitude};
      std::size_t const first = std::max(column.first, other.first);
      std::size_t const end = std::min(column.first + column.count, other.first + other.count);
      double sums[9] = {};
      if (first < end) {
        kernels->multiply(shifted(column.weighted, first), shifted(other.plain, first), end - first, sums);
      }
      for (std::size_t a = 0; a < 3; ++a) {
        for (std::size_t b = 0; b < 3; ++b) {
          matrix[(row + a) * n + 1 + 3 * l + b] = factors[a] * otherFactors[b] * sums[3 * a + b];
        }
      }
    }
    if (!echo.hasFreeWidth) {
      WidthPrior::Energy const energy = prior.at(echo.variance);
      matrix[(row + 2) * n + row + 2] += 0.5 * energy.curvature;
      gradient[row + 2] -= 0.5 * energy.slope;
    }
  }
  for (std::size_t a = 0; a < n; ++a) {
    for (std::size_t b = a + 1; b < n; ++b) {
      matrix[a * n + b] = matrix[b * n + a];
    }
  }
}

/// The hypothesis after a step, with every parameter within its bounds.
Hypothesis EchoFit::stepped(Hypothesis const& from, Gradient const& step, double& move) const {
  Hypothesis to = from;
  to.baseline += step[0];
  move = 0.0;
  for (std::size_t k = 0; k < from.count; ++k) {
    EchoState& echo = to.echoes[k];
    double const* const by = step.data() + 1 + 3 * k;
    double const shift = std::clamp(by[0], -maxMove, maxMove);
    move = std::max(move, std::abs(shift));
    echo.position = std::clamp(echo.position + shift, -reach, static_cast<double>(size) - 1.0 + reach);
    echo.amplitude =
        std::max(echo.amplitude + by[1], std::max(minAmplitudeRatio * echo.amplitude, minAmplitude));
    echo.variance = std::clamp(echo.variance + std::clamp(by[2], -maxVarianceStep, maxVarianceStep),
                               PulseTable::minVariance, table->maxVariance());
  }
  return to;
}

void EchoFit::refine(Hypothesis& hypothesis) {
  constexpr double minDamping = 1e-6;
  constexpr double minDiagonal = 1e-12;
  FitMatrix matrix;
  FitMatrix damped;
  Gradient gradient;
  std::size_t const n = parametersOf(hypothesis);
  evaluateAt(hypothesis, current);
  hypothesis.hasConverged = false;
  double damping = 1e-3;
  for (int iteration = 0; iteration < maxIterations && !hypothesis.hasConverged; ++iteration) {
    normalEquations(hypothesis, current, matrix, gradient);
    bool hasImproved = false;
    for (int attempt = 0; attempt < maxTrials && !hasImproved; ++attempt) {
      std::copy_n(matrix.begin(), n * n, damped.begin());
      for (std::size_t i = 0; i < n; ++i) {
        damped[i * n + i] = std::max(damped[i * n + i] * (1.0 + damping), minDiagonal);
      }
      if (!choleskyFactor({damped.data(), n * n}, n)) {
        damping = std::max(10.0 * damping, 1e-4);
        continue;
      }
      Gradient step = gradient;
      choleskySolve({damped.data(), n * n}, n, {step.data(), n});
      double move = 0.0;
      Hypothesis candidate = stepped(hypothesis, step, move);
      evaluateAt(candidate, trial);
      double const gain = hypothesis.energy - candidate.energy;
      if (gain >= -1e-9) {
        candidate.hasConverged = (gain < negligibleGain && move < negligibleMove) || gain < 1e-4;
        hypothesis = candidate;
        std::swap(current, trial);
        damping = std::max(0.2 * damping, minDamping);
        hasImproved = true;
      } else {
        damping = std::max(8.0 * damping, 1e-3);
      }
    }
    if (!hasImproved) {
      hypothesis.hasConverged = true;  // no step in any direction helps
    }
  }
}

bool EchoFit::covariance(Hypothesis const& hypothesis, FitMatrix& result) {
  FitMatrix matrix;
  Gradient gradient;
  std::size_t const n = parametersOf(hypothesis);
  normalEquations(hypothesis, current, matrix, gradient);
  if (!choleskyFactor({matrix.data(), n * n}, n)) {
    return false;
  }
  choleskyInverse({matrix.data(), n * n}, n, result);
  return true;
}

}  // namespace FullWaveform
