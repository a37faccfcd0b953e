#include <fullwaveform/pulsefit/EchoInformation.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace FullWaveform {
namespace {

constexpr std::size_t maxParameters = 3;
constexpr std::size_t maxDistance = 24;  // of coupled echoes in their list, over which noise has an influence
constexpr std::size_t maxCoupledEchoes = 40;  // of one echo; more cannot be distinguished in any noise
enum Parameter : std::uint8_t { POSITION, AMPLITUDE, WIDTH };

// Zeros before a column let it be filtered at once.
static_assert(2 * maxNoiseLag <= laneCount);

std::size_t wholeLanes(std::size_t count) {
  return (count + laneCount - 1) / laneCount * laneCount;
}

/// Zeros on both sides of a column let it be filtered, and multiplied in whole lanes from any sample on.
std::size_t columnStride(std::size_t count) {
  return laneCount + wholeLanes(count) + 2 * laneCount;
}

std::size_t filteredStride(std::size_t count, std::size_t lag) {
  return wholeLanes(count + 2 * lag) + laneCount;
}

PulseColumns columnsAt(double* first, std::size_t stride) {
  return {.value = first, .byLag = first + stride, .byVariance = first + 2 * stride};
}

/// A column by its number among the parameters.
double const* column(PulseColumns const& columns, std::size_t parameter) {
  double const* const all[maxParameters] = {columns.byLag, columns.value, columns.byVariance};
  return all[parameter];
}

double sumOf(double const* values, std::size_t count) {
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    sum += values[i];
  }
  return sum;
}

/// Product of a column, which begins at a sample, with the weights of a smoothing.
double smoothedColumn(double const* values, std::size_t first, std::size_t count,
                      SmoothingWeights const& smoothing) {
  double sum = 0.0;
  for (std::size_t k = 0; k < smoothing.weights.size(); ++k) {
    std::size_t const sample = smoothing.first + k;
    if (sample >= first && sample < first + count) {
      sum += smoothing.weights[k] * values[sample - first];
    }
  }
  return sum;
}

}  // namespace

EchoInformation::EchoInformation(InstructionSet set) : set(set), kernels(&pulseKernels(set)) {}

void EchoInformation::begin(std::size_t samples, std::size_t noiseLag) {
  size = samples;
  lag = noiseLag;
  used = 0;
  fitted = 0;
  echoes.clear();
}

/// Whether some sample must be in more echoes than one may be coupled with.
bool EchoInformation::isCrowded() const {
  return fitted > (maxCoupledEchoes + 1) * size;
}

PulseColumns EchoInformation::add(Place const& place) {
  fitted += place.count;
  if (isCrowded()) {
    used = 0;  // nothing will be solved: the memory for thousands of wide echoes would be gigabytes
  }
  std::size_t const stride = columnStride(place.count);
  std::size_t const length = maxParameters * (stride + (lag == 0 ? 0 : filteredStride(place.count, lag)));
  if (memory.size() < used + length) {
    memory.resize(2 * (used + length));
  }
  std::fill_n(memory.begin() + static_cast<std::ptrdiff_t>(used), maxParameters * stride, 0.0);
  echoes.push_back({place, echoes.size(), used, 0, 0});
  used += length;
  ones.resize(std::max(ones.size(), columnStride(place.count)), 1.0);
  return columnsOf(echoes.back());
}

PulseColumns EchoInformation::columnsOf(Echo const& echo) {
  return columnsAt(memory.data() + echo.columns + laneCount, columnStride(echo.place.count));
}

/// The columns times the correlation of the noise; they begin `lag` samples earlier.
PulseColumns EchoInformation::filteredOf(Echo const& echo) {
  if (lag == 0) {
    return columnsOf(echo);
  }
  double* const first = memory.data() + echo.columns + maxParameters * columnStride(echo.place.count);
  return columnsAt(first, filteredStride(echo.place.count, lag));
}

void EchoInformation::filter(SampleNoise const& noise) {
  noiseVariance = noise.covariance.front();
  for (std::size_t k = 0; k <= lag; ++k) {
    taps[lag - k] = taps[lag + k] = noise.covariance[k] / noiseVariance;
  }
  if (lag == 0) {
    return;
  }
  for (Echo const& echo : echoes) {
    PulseColumns const from = columnsOf(echo);
    PulseColumns const to = filteredOf(echo);
    std::size_t const count = wholeLanes(echo.place.count + 2 * lag);
    kernels->correlate(from.value - 2 * lag, taps.data(), 2 * lag + 1, count, to.value);
    kernels->correlate(from.byLag - 2 * lag, taps.data(), 2 * lag + 1, count, to.byLag);
    kernels->correlate(from.byVariance - 2 * lag, taps.data(), 2 * lag + 1, count, to.byVariance);
    for (double* const values : {to.value, to.byLag, to.byVariance}) {
      std::fill_n(values + count, laneCount, 0.0);
    }
  }
}

/// Sorts the echoes that have samples by their positions.
void EchoInformation::order() {
  std::erase_if(echoes, [](Echo const& echo) { return echo.place.count == 0; });
  std::sort(echoes.begin(), echoes.end(),
            [](Echo const& a, Echo const& b) { return a.place.maximum < b.place.maximum; });
}

/// Finds the echoes with which each one shares samples.
///
/// @return false if these are too many
bool EchoInformation::couple() {
  std::size_t reach = 0;  // after the last sample of the echoes that are too far away in the list
  for (std::size_t k = 0; k < echoes.size(); ++k) {
    Place const& place = echoes[k].place;
    echoes[k].firstCoupled = k;
    std::size_t const nearest = k > maxCoupledEchoes ? k - maxCoupledEchoes : 0;
    for (std::size_t j = nearest; j < k; ++j) {
      Place const& other = echoes[j].place;
      if (other.first < place.first + place.count && place.first < other.first + other.count) {
        echoes[k].firstCoupled = j;
        break;
      }
    }
    if (nearest > 0) {
      Place const& left = echoes[nearest - 1].place;
      reach = std::max(reach, left.first + left.count);
      if (reach > place.first) {
        return false;
      }
    }
  }
  for (std::size_t k = echoes.size(); k-- > 1;) {
    echoes[k - 1].firstCoupled = std::min(echoes[k - 1].firstCoupled, echoes[k].firstCoupled);
  }
  return true;
}

std::size_t EchoInformation::quietSamples() const {
  std::size_t covered = 0;
  std::size_t end = 0;
  for (Echo const& echo : echoes) {
    std::size_t const last = echo.place.first + echo.place.count;
    covered += last > end ? last - std::max(end, echo.place.first) : 0;
    end = std::max(end, last);
  }
  return size - covered;
}

void EchoInformation::solve(SampleNoise const& noise, std::span<EchoUncertainty> result) {
  std::fill(result.begin(), result.end(), EchoUncertainty());
  if (isCrowded()) {
    return;
  }
  order();
  if (!couple()) {
    return;
  }
  filter(noise);
  baselineVariance = noise.baselineVariance(quietSamples());
  for (std::size_t begin = 0, end = 0; begin < echoes.size(); begin = end) {
    end = begin + 1;
    while (end < echoes.size() && echoes[end].firstCoupled < end) {
      ++end;
    }
    solveGroup({begin, end}, result);
  }
}

void EchoInformation::solveGroup(Range group, std::span<EchoUncertainty> result) {
  firstColumns.clear();
  for (std::size_t k = group.begin; k < group.end; ++k) {
    echoes[k].row = firstColumns.size();
    std::size_t const first = echoes[echoes[k].firstCoupled].row;
    firstColumns.insert(firstColumns.end(), echoes[k].place.parameters, first);
  }
  fillMatrices(group);
  if (!information.factor()) {
    return;
  }
  for (std::size_t k = group.begin; k < group.end; ++k) {
    Range const neighbours{std::max(group.begin + maxDistance, k) - maxDistance,
                           std::min(group.end, k + maxDistance + 1)};
    result[echoes[k].index] = uncertaintyOf(k, neighbours);
  }
}

void EchoInformation::fillMatrices(Range group) {
  information.reset(firstColumns);
  if (lag > 0) {
    noiseProducts.reset(firstColumns);
  }
  for (std::vector<double>* const vector : {&baselineProducts, &smoothed, &smoothedNoise, &influence}) {
    vector->assign(firstColumns.size(), 0.0);
  }
  for (std::size_t k = group.begin; k < group.end; ++k) {
    Echo const& echo = echoes[k];
    PulseColumns const columns = columnsOf(echo);
    for (std::size_t a = 0; a < echo.place.parameters; ++a) {
      baselineProducts[echo.row + a] = sumOf(column(columns, a), echo.place.count);
    }
    for (std::size_t j = echo.firstCoupled; j <= k; ++j) {
      multiply(echo, columns, 0, echoes[j], information);
      if (lag > 0) {
        multiply(echo, filteredOf(echo), lag, echoes[j], noiseProducts);
      }
    }
  }
}

/// Enters the products of columns of an echo, which begin `early` samples before its place and end as much
/// after it, with the columns of another echo.
void EchoInformation::multiply(Echo const& echo, PulseColumns const& columns, std::size_t early,
                               Echo const& other, EnvelopeMatrix& matrix) {
  // Counted from `early` samples before the waveform.
  std::size_t const first = echo.place.first;
  std::size_t const otherFirst = other.place.first + early;
  std::size_t const begin = std::max(first, otherFirst);
  std::size_t const end = std::min(first + echo.place.count + 2 * early, otherFirst + other.place.count);
  if (begin >= end) {
    return;
  }
  double products[maxParameters * maxParameters];
  kernels->multiply(columns.from(begin - first), columnsOf(other).from(begin - otherFirst), ones.data(),
                    end - begin, products);
  for (std::size_t a = 0; a < echo.place.parameters; ++a) {
    std::size_t const row = echo.row + a;
    for (std::size_t b = 0; b < other.place.parameters && other.row + b <= row; ++b) {
      matrix.at(row, other.row + b) = products[maxParameters * a + b];
    }
  }
}

EchoUncertainty EchoInformation::uncertaintyOf(std::size_t echo, Range neighbours) {
  Place const& place = echoes[echo].place;
  Echo const& last = echoes[neighbours.end - 1];
  Range const rows{echoes[neighbours.begin].row, last.row + last.place.parameters};
  std::size_t const own = echoes[echo].row;
  EchoUncertainty uncertainty;
  select(own + POSITION, rows);
  uncertainty.position = deviation(noiseOf(influence[own + POSITION], rows), baselineOf(rows));
  if (place.isClipped) {
    return uncertainty;
  }
  if (place.parameters == maxParameters) {
    double const fwhmPerSigma = 2.0 * std::sqrt(2.0 * std::numbers::ln2);
    select(own + WIDTH, rows);
    uncertainty.fwhm = fwhmPerSigma * deviation(noiseOf(influence[own + WIDTH], rows), baselineOf(rows));
  }
  SmoothingWeights const smoothing = smoothingAt(size, place.maximum);
  project(smoothing, neighbours);
  selectSmoothed(own + AMPLITUDE, rows);
  double onSmoothed = 0.0;
  double covariance = 0.0;
  for (std::size_t i = rows.begin; i < rows.end; ++i) {
    onSmoothed += smoothed[i] * influence[i];
    covariance += smoothedNoise[i] * influence[i];
  }
  double const ofFit = noiseOf(influence[own + AMPLITUDE] - onSmoothed, rows);
  double const weight = sumOf(smoothing.weights.data(), smoothing.weights.size());
  uncertainty.amplitude =
      deviation(ofFit + 2.0 * covariance + smoothedVariance(smoothing), baselineOf(rows) + weight);
  return uncertainty;
}

/// Standard deviation of a value.
///
/// @param variance    for noise of variance 1
/// @param onBaseline  its change by a wrong baseline
double EchoInformation::deviation(double variance, double onBaseline) const {
  return std::sqrt(noiseVariance * variance + baselineVariance * onBaseline * onBaseline);
}

/// Sets the influence of the noise on a parameter.
void EchoInformation::select(std::size_t parameter, Range rows) {
  for (std::size_t i = rows.begin; i < rows.end; ++i) {
    influence[i] = i == parameter ? 1.0 : 0.0;
  }
  information.solve(influence, rows.begin, rows.end);
}

/// Sets that on an amplitude less what the fitted echoes contribute to the smoothed value.
void EchoInformation::selectSmoothed(std::size_t amplitude, Range rows) {
  for (std::size_t i = rows.begin; i < rows.end; ++i) {
    influence[i] = (i == amplitude ? 1.0 : 0.0) - smoothed[i];
  }
  information.solve(influence, rows.begin, rows.end);
}

/// Products of the columns of some echoes with the weights of a smoothing.
void EchoInformation::project(SmoothingWeights const& smoothing, Range neighbours) {
  SmoothingWeights later = smoothing;
  later.first += lag;
  for (std::size_t k = neighbours.begin; k < neighbours.end; ++k) {
    Echo const& echo = echoes[k];
    for (std::size_t a = 0; a < echo.place.parameters; ++a) {
      smoothed[echo.row + a] =
          smoothedColumn(column(columnsOf(echo), a), echo.place.first, echo.place.count, smoothing);
      if (lag == 0) {
        smoothedNoise[echo.row + a] = smoothed[echo.row + a];
        continue;
      }
      smoothedNoise[echo.row + a] =
          smoothedColumn(column(filteredOf(echo), a), echo.place.first, echo.place.count + 2 * lag, later);
    }
  }
}

/// Variance that the influence gives to a value, for noise of variance 1.
///
/// @param ofWhiteNoise  the same, if the noise is not correlated
double EchoInformation::noiseOf(double ofWhiteNoise, Range rows) const {
  return lag == 0 ? ofWhiteNoise : noiseProducts.quadraticForm(influence, rows.begin, rows.end);
}

/// Change of a value by a wrong baseline.
double EchoInformation::baselineOf(Range rows) const {
  double sum = 0.0;
  for (std::size_t i = rows.begin; i < rows.end; ++i) {
    sum += influence[i] * baselineProducts[i];
  }
  return sum;
}

/// Variance of a smoothed value for noise of variance 1.
double EchoInformation::smoothedVariance(SmoothingWeights const& smoothing) const {
  double sum = 0.0;
  for (std::size_t i = 0; i < smoothing.weights.size(); ++i) {
    for (std::size_t j = 0; j < smoothing.weights.size(); ++j) {
      std::size_t const distance = i < j ? j - i : i - j;
      sum += distance <= lag ? smoothing.weights[i] * smoothing.weights[j] * taps[lag + distance] : 0.0;
    }
  }
  return sum;
}

}  // namespace FullWaveform
