#include <fullwaveform/pulsefit/EchoFit.h>

#include <algorithm>
#include <cmath>

#include <fullwaveform/pulsefit/Cholesky.h>

namespace FullWaveform {
namespace {

constexpr int maxIterations = 15;
constexpr int maxTrials = 6;
constexpr double negligibleGain = 0.02;  // of the energy: a seventh of a standard deviation
constexpr double negligibleMove = 0.01;  // samples
constexpr double nearMinimum = 1.0;      // of the energy
constexpr double noGain = 1e-4;          // of the energy
constexpr double smallDamping = 1e-2;    // so small that a step is nearly that of Newton
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

double square(double value) {
  return value * value;
}

}  // namespace

EchoFit::EchoFit(PulseModel const& model, PulseTable const& table, InstructionSet set)
    : model(model),
      table(&table),
      kernels(&pulseKernels(set)),
      priorOfOne(model.varianceSpread, model.widening),
      priorOfSeveral(WidthPrior::ofSeveral(model.varianceSpread, model.widening)),
      noiseDeviation(model.noiseRms * model.noiseCorrelation),
      baselinePrior(std::max(2.0 * model.baselineSpread, 0.3 * model.noiseRms)),
      scatter(model.scatter),
      outsideFactor(1.0 / std::min(model.noiseCorrelation * model.noiseCorrelation, 1.0)) {}

void EchoFit::setSignal(std::span<unsigned short const> samples, double limit) {
  size = samples.size();
  // Columns are written in whole lanes, followed by one more of zeros.
  stride = wholeLanes(size) + 2 * laneCount;
  signal.resize(std::max(signal.size(), stride));
  std::copy(samples.begin(), samples.end(), signal.begin());
  clippedSamples.clear();
  clippedSamples.reserve(size);
  for (std::size_t i = 0; i < size && limit <= 65535.0; ++i) {
    if (signal[i] >= limit) {
      clippedSamples.push_back(static_cast<std::uint32_t>(i));
    }
  }
  isEvaluated = false;
  for (Evaluation& evaluation : evaluations) {
    resize(evaluation);
  }
}

void EchoFit::setScatterFactor(double factor) {
  isEvaluated = isEvaluated && scatter == factor * model.scatter;
  scatter = factor * model.scatter;
}

void EchoFit::setWidthsOfSeveral(bool areOfSeveral) {
  if (areOfSeveral == areWidthsOfSeveral) {
    return;
  }
  areWidthsOfSeveral = areOfSeveral;
  isEvaluated = false;
  for (Evaluation& evaluation : evaluations) {
    for (Column& column : evaluation.columns) {
      column.position = std::numeric_limits<double>::quiet_NaN();  // its energy is that of the other prior
    }
  }
}

void EchoFit::resize(Evaluation& evaluation) const {
  constexpr std::size_t columnsPerEcho = 3;
  evaluation.residual.resize(std::max(evaluation.residual.size(), stride));
  evaluation.weights.resize(std::max(evaluation.weights.size(), stride));
  std::fill(evaluation.weights.begin() + static_cast<std::ptrdiff_t>(size),
            evaluation.weights.begin() + static_cast<std::ptrdiff_t>(stride), 0.0);
  evaluation.memory.resize(std::max(evaluation.memory.size(), columnsPerEcho * maxFittedEchoes * stride));
  double* next = evaluation.memory.data();
  for (Column& column : evaluation.columns) {
    column = {};
    for (double** const part : {&column.pulse.value, &column.pulse.byLag, &column.pulse.byVariance}) {
      *part = next;
      next += stride;
    }
  }
}

/// Sets the columns of an echo. Zeros follow its last sample, because products with the columns of another
/// echo run over the end by less than `laneCount`.
void EchoFit::place(FittedEcho const& echo, Column& column) const {
  if (echo.position == column.position && echo.variance == column.variance) {
    return;
  }
  if (echo.variance != column.variance || std::isnan(column.position)) {
    column.width = widthPrior().at(echo.variance);
  }
  column.position = echo.position;
  column.variance = echo.variance;
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
  PulseColumns const to = column.pulse.from(column.first);
  kernels->interpolate(place, static_cast<std::size_t>(first - place.first), written, to);
  for (double* const part : {to.value, to.byLag, to.byVariance}) {
    std::fill(part + column.count, part + written + laneCount, 0.0);
  }
}

void EchoFit::setResidual(Hypothesis const& hypothesis, Evaluation& at) const {
  kernels->subtractBaseline(signal.data(), hypothesis.baseline, wholeLanes(size), at.residual.data());
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    Column& column = at.columns[k];
    place(hypothesis.echoes[k], column);
    kernels->subtractPulse(hypothesis.echoes[k].amplitude, column.pulse.value + column.first,
                           wholeLanes(column.count), at.residual.data() + column.first);
  }
}

/// Sets the weights of all samples, 0 for clipped ones that the model exceeds: these have no residual.
void EchoFit::setWeights(Hypothesis const& hypothesis, Evaluation& at) const {
  std::array<VarianceBand, maxFittedEchoes> bands;
  std::size_t const count = scatter > 0.0 ? hypothesis.count : 0;
  for (std::size_t k = 0; k < count; ++k) {
    Column const& column = at.columns[k];
    bands[k] = {column.first, column.first + column.count, square(scatter * hypothesis.echoes[k].amplitude)};
  }
  at.segments.set(square(noiseDeviation), {bands.data(), count}, {at.weights.data(), size});
  at.weightSum = at.segments.sum();
  for (std::uint32_t const i : clippedSamples) {
    if (at.residual[i] <= 0.0) {
      at.weightSum -= at.weights[i];
      at.weights[i] = 0.0;
      at.residual[i] = 0.0;
    }
  }
}

/// Sets residual and weights, and the energy and cost of the hypothesis.
void EchoFit::evaluateAt(Hypothesis& hypothesis, Evaluation& at) const {
  setResidual(hypothesis, at);
  setWeights(hypothesis, at);
  at.sums = kernels->sumResidual(at.weights.data(), at.residual.data(), wholeLanes(size));
  hypothesis.chiSquare = at.sums.squares;
  hypothesis.energy = at.sums.squares + at.segments.logarithms() +
                      square((hypothesis.baseline - model.baseline) / baselinePrior);
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    if (!hypothesis.echoes[k].hasFreeWidth) {
      hypothesis.energy += at.columns[k].width.value;
    }
  }
  hypothesis.cost = costOf(hypothesis);
}

void EchoFit::evaluate(Hypothesis& hypothesis) {
  if (isEvaluated && evaluated.hasSameParameters(hypothesis)) {
    hypothesis.energy = evaluated.energy;
    hypothesis.cost = evaluated.cost;
    hypothesis.chiSquare = evaluated.chiSquare;
    return;
  }
  evaluateAt(hypothesis, current());
  keep(hypothesis);
}

void EchoFit::keep(Hypothesis const& hypothesis) {
  evaluated = hypothesis;
  isEvaluated = true;
}

double EchoFit::costOf(Hypothesis const& hypothesis) const {
  double cost = hypothesis.energy;
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    FittedEcho const& echo = hypothesis.echoes[k];
    bool const isOutside = echo.position < 0.0 || echo.position > static_cast<double>(size) - 1.0;
    cost += (isOutside ? outsideFactor : 1.0) * echoCost + (echo.hasFreeWidth ? widthCost : 0.0);
  }
  return cost;
}

/// Sets the normal equations of Gauss-Newton at the current evaluation.
void EchoFit::setEquations(Hypothesis const& hypothesis) {
  Evaluation const& at = current();
  std::size_t const n = parametersOf(hypothesis);
  equations.count = n;
  equations.stride = wholeLanes(n + 1);
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    FittedEcho const& echo = hypothesis.echoes[k];
    Column const& column = at.columns[k];
    // The model changes by -amplitude x slope when the echo moves, by the pulse, and by amplitude x d/dv.
    double const factors[3] = {-echo.amplitude, 1.0, echo.amplitude};
    EchoProducts const own =
        kernels->sumEcho(column.pulse.from(column.first), at.weights.data() + column.first,
                         at.residual.data() + column.first, wholeLanes(column.count));
    std::size_t const first = 3 * k;
    double const* product = own.products;
    for (std::size_t a = 0; a < 3; ++a) {
      equations.row(first + a)[n - 1] = factors[a] * own.sums[a];
      equations.row(first + a)[n] = factors[a] * own.residuals[a];
      for (std::size_t b = 0; b <= a; ++b) {
        equations.row(first + b)[first + a] = factors[a] * factors[b] * *product++;
      }
    }
    for (std::size_t l = 0; l < k; ++l) {
      Column const& other = at.columns[l];
      double const amplitude = hypothesis.echoes[l].amplitude;
      double const otherFactors[3] = {-amplitude, 1.0, amplitude};
      std::size_t const begin = std::max(column.first, other.first);
      std::size_t const end = std::min(column.first + column.count, other.first + other.count);
      double products[9] = {};
      if (begin < end) {
        kernels->multiply(other.pulse.from(begin), column.pulse.from(begin), at.weights.data() + begin,
                          end - begin, products);
      }
      for (std::size_t b = 0; b < 3; ++b) {
        for (std::size_t a = 0; a < 3; ++a) {
          equations.row(3 * l + b)[first + a] = otherFactors[b] * factors[a] * products[3 * b + a];
        }
      }
    }
    if (!echo.hasFreeWidth) {
      equations.row(first + 2)[first + 2] += 0.5 * column.width.curvature;
      equations.row(first + 2)[n] -= 0.5 * column.width.slope;
    }
  }
  double const perBaseline = 1.0 / square(baselinePrior);
  equations.row(n - 1)[n - 1] = at.weightSum + perBaseline;
  equations.row(n - 1)[n] = at.sums.plain - (hypothesis.baseline - model.baseline) * perBaseline;
}

/// The hypothesis after a step, with every parameter within its bounds.
EchoFit::Step EchoFit::stepped(Hypothesis const& from, Parameters const& step) const {
  Step result{from};
  result.to.baseline += step[3 * from.count];
  for (std::size_t k = 0; k < from.count; ++k) {
    FittedEcho& echo = result.to.echoes[k];
    double const* const by = step.data() + 3 * k;
    FittedEcho const unclamped{echo.position + by[0], echo.amplitude + by[1], echo.variance + by[2],
                               echo.hasFreeWidth};
    double const shift = std::clamp(by[0], -maxMove, maxMove);
    result.move = std::max(result.move, std::abs(shift));
    echo.position = std::clamp(echo.position + shift, -reach, static_cast<double>(size) - 1.0 + reach);
    echo.amplitude =
        std::max(echo.amplitude + by[1], std::max(minAmplitudeRatio * echo.amplitude, minAmplitude));
    echo.variance = std::clamp(echo.variance + std::clamp(by[2], -maxVarianceStep, maxVarianceStep),
                               PulseTable::minVariance, table->maxVariance());
    result.isClamped = result.isClamped || echo != unclamped;
  }
  return result;
}

void EchoFit::refine(Hypothesis& hypothesis) {
  evaluate(hypothesis);
  hypothesis.hasConverged = false;
  double damping = 1e-3;
  for (int iteration = 0; iteration < maxIterations && !hypothesis.hasConverged; ++iteration) {
    if (!improve(hypothesis, damping)) {
      hypothesis.hasConverged = true;  // no step in any direction helps
    }
  }
  keep(hypothesis);
}

/// What the step from the current to the trial evaluation gains with the weights as they are at the current
/// one.
double EchoFit::gainOf(Hypothesis const& from, Hypothesis const& to) {
  double const squares =
      kernels->sumResidual(current().weights.data(), trial().residual.data(), wholeLanes(size)).squares;
  double const before = from.energy - current().segments.logarithms();
  double const after = to.energy - trial().segments.logarithms() + squares - to.chiSquare;
  return before - after;
}

/// Makes one step that lowers the energy.
/// @return false if there is none
bool EchoFit::improve(Hypothesis& hypothesis, double& damping) {
  constexpr double minDamping = 1e-6;
  constexpr double minDiagonal = 1e-12;
  setEquations(hypothesis);
  std::size_t const n = equations.count;
  std::size_t const stride = equations.stride;
  damped.stride = stride;
  for (int attempt = 0; attempt < maxTrials; ++attempt) {
    std::copy_n(equations.rows.begin(), n * stride, damped.rows.begin());
    for (std::size_t i = 0; i < n; ++i) {
      damped.row(i)[i] = std::max(damped.row(i)[i] * (1.0 + damping), minDiagonal);
    }
    if (!kernels->factor(damped.rows.data(), n, stride)) {
      damping = std::max(10.0 * damping, 1e-4);
      continue;
    }
    Parameters step;
    choleskySolve(damped.rows, n, stride, step);
    double predicted = 0.0;  // gain of the energy if the residual were linear in the parameters
    for (std::size_t i = 0; i < n; ++i) {
      predicted += step[i] * (equations.row(i)[n] + damping * equations.row(i)[i] * step[i]);
    }
    if (!(predicted >= noGain && std::isfinite(predicted))) {
      return false;
    }
    Step next = stepped(hypothesis, step);
    evaluateAt(next.to, trial());
    double gain = hypothesis.energy - next.to.energy;
    if (predicted < nearMinimum && damping <= smallDamping) {
      gain = std::max(gain, gainOf(hypothesis, next.to));
    }
    if (gain >= -1e-9) {
      // What is left to gain is of the order of (gain - predicted)^2 / predicted, as in every iteration of
      // Newton's kind.
      bool const isPredicted =
          damping <= smallDamping && !next.isClamped && square(gain - predicted) < noGain * predicted;
      next.to.hasConverged =
          isPredicted || (gain < negligibleGain && next.move < negligibleMove) || gain < noGain;
      hypothesis = next.to;
      currentIndex = 1 - currentIndex;
      damping = std::max(0.2 * damping, minDamping);
      return true;
    }
    damping = std::max(8.0 * damping, 1e-3);
  }
  return false;
}

bool EchoFit::covariance(Hypothesis const& hypothesis, FitMatrix& result) {
  setEquations(hypothesis);
  if (!kernels->factor(equations.rows.data(), equations.count, equations.stride)) {
    return false;
  }
  choleskyInverse(equations.rows, equations.count, equations.stride, result);
  return true;
}

}  // namespace FullWaveform
