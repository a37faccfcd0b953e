#include <fullwaveform/pulsefit/ThreePointUncertainty.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>

#include <fullwaveform/fitting/SampleLogarithm.h>

namespace FullWaveform {
namespace {

constexpr double reachInSigmas = 3.0;   // of an echo, for the samples without one
constexpr double roundingOfFit = 0.01;  // samples; the fit computes in single precision

constexpr std::size_t widestReach = 3;      // samples on either side that show the width of an echo
constexpr double surroundingsSpread = 0.2;  // of the curvature, by baseline and neighbours, relative

using Triple = std::array<double, 3>;

/// A sample as the fit reads it.
unsigned short atLeastOne(unsigned short sample) {
  return std::max<unsigned short>(sample, 1);
}

/// Variance of a weighted sum of three neighbouring samples.
double varianceOf(Triple const& weights, std::span<double const> covariance) {
  double sum = 0.0;
  if (covariance.size() == 1) {  // white noise
    for (double const weight : weights) {
      sum += weight * weight * covariance.front();
    }
    return sum;
  }
  for (std::size_t i = 0; i < weights.size(); ++i) {
    for (std::size_t j = 0; j < weights.size(); ++j) {
      std::size_t const distance = i < j ? j - i : i - j;
      sum += distance < covariance.size() ? weights[i] * weights[j] * covariance[distance] : 0.0;
    }
  }
  return sum;
}

/// Samples outside three standard deviations of all echoes.
std::size_t quietSamples(std::size_t size, std::span<double const> sigmas) {
  double left = static_cast<double>(size);
  for (double const sigma : sigmas) {
    left -= std::isfinite(sigma) ? 2.0 * reachInSigmas * sigma + 1.0 : 0.0;
  }
  return static_cast<std::size_t>(std::max(left, 0.0));
}

/// Curvature of the logarithm of a pulse at its maximum, and its variance.
struct Curvature {
  double value = 0.0;
  double variance = std::numeric_limits<double>::infinity();
};

/// Curvature of the parabola through the logarithms of the samples around an index, by least squares with
/// the weights of their noise. Infinite variance if it is not that of a maximum.
Curvature curvatureAround(std::span<unsigned short const> samples, std::size_t middle, double noiseVariance) {
  std::size_t const reach = std::min({widestReach, middle, samples.size() - 1 - middle});
  double moments[5] = {};
  double products[3] = {};
  for (std::size_t i = middle - reach; i <= middle + reach; ++i) {
    double const x = static_cast<double>(i) - static_cast<double>(middle);
    unsigned short const counts = atLeastOne(samples[i]);
    double const sample = counts;
    double weight = sample * sample / noiseVariance;
    double const logarithm = logarithmOf(counts);
    for (std::size_t power = 0; power < 5; ++power) {
      moments[power] += weight;
      if (power < 3) {
        products[power] += weight * logarithm;
      }
      weight *= x;
    }
  }
  auto const& [m0, m1, m2, m3, m4] = moments;
  // Constant and slope eliminated from the equation of the quadratic term.
  double const determinant = m0 * m2 - m1 * m1;
  double const constant = (m2 * m2 - m1 * m3) / determinant;
  double const slope = (m0 * m3 - m1 * m2) / determinant;
  double const weight = m4 - constant * m2 - slope * m3;
  double const quadratic = (products[2] - constant * products[0] - slope * products[1]) / weight;
  return weight > 0.0 && quadratic < 0.0 ? Curvature{2.0 * quadratic, 4.0 / weight} : Curvature{};
}

/// Mean of the curvature of the three samples and of that of their surroundings, weighted with their
/// variances.
///
/// In noise, three samples look like a maximum where their curvature is too strong. The curvature of more
/// samples is not a matter of chance, but is flattened by the baseline and by other echoes.
double improved(Curvature const& ofThree, Curvature around) {
  around.variance += std::pow(surroundingsSpread * ofThree.value, 2.0);
  double const weight = ofThree.variance / (ofThree.variance + around.variance);
  return ofThree.value + (weight > 0.0 ? weight * (around.value - ofThree.value) : 0.0);
}

/// @param middle  sample on which the fit was centred; has neighbours
/// @param offset  of the echo from it, samples
EchoUncertainty uncertaintyOf(std::span<unsigned short const> samples, std::size_t middle, double offset,
                              SampleNoise const& noise, double baselineVariance) {
  Triple values{};
  Triple logarithms{};
  for (std::size_t i = 0; i < values.size(); ++i) {
    unsigned short const counts = atLeastOne(samples[middle - 1 + i]);
    values[i] = counts;
    logarithms[i] = logarithmOf(counts);
  }
  auto const [left, centre, right] = logarithms;
  double const fitted = left - 2.0 * centre + right;  // negative at a maximum
  double const vertex = 0.5 * (left - right) / fitted;
  if (!(fitted < 0.0 && std::abs(vertex - offset) < roundingOfFit)) {
    return {};
  }
  Triple const ofCurvature{1.0 / values[0], -2.0 / values[1], 1.0 / values[2]};
  double const curvature = improved({fitted, varianceOf(ofCurvature, noise.covariance)},
                                    curvatureAround(samples, middle, noise.covariance.front()));
  double const sigma = std::sqrt(-1.0 / curvature);
  double const height = std::exp(centre - 0.5 * fitted * vertex * vertex);
  Triple byPosition = {0.5 - vertex, 2.0 * vertex, -0.5 - vertex};
  Triple byHeight = {0.5 * vertex * (vertex - 1.0), 1.0 - vertex * vertex, 0.5 * vertex * (vertex + 1.0)};
  Triple bySigma = ofCurvature;
  for (std::size_t i = 0; i < values.size(); ++i) {
    byPosition[i] /= curvature * values[i];
    byHeight[i] *= height / values[i];
    bySigma[i] *= 0.5 * sigma * sigma * sigma;
  }
  double const fwhmPerSigma = 2.0 * std::sqrt(2.0 * std::numbers::ln2);
  return {.position = std::sqrt(varianceOf(byPosition, noise.covariance)),
          .amplitude = std::sqrt(varianceOf(byHeight, noise.covariance) + baselineVariance),
          .fwhm = fwhmPerSigma * std::sqrt(varianceOf(bySigma, noise.covariance))};
}

}  // namespace

void threePointUncertainties(FittedSamples const& waveform, SampleNoise const& noise,
                             ThreePointEchoes const& echoes, std::span<EchoUncertainty> result) {
  std::span<unsigned short const> const samples = waveform.samples;
  double const last = static_cast<double>(samples.size()) - 1.0;
  double const baselineVariance = noise.baselineVariance(quietSamples(samples.size(), echoes.sigmas));
  for (std::size_t k = 0; k < echoes.positions.size(); ++k) {
    result[k] = EchoUncertainty();
    // Of two equal samples the fit takes the first for the middle one.
    double const middle = std::ceil(echoes.positions[k] - 0.5);
    if (!(middle >= 1.0 && middle < last)) {  // true for NaN
      continue;
    }
    auto const index = static_cast<std::size_t>(middle);
    if (!waveform.isClipped(index - 1, 3)) {
      result[k] = uncertaintyOf(samples, index, echoes.positions[k] - middle, noise, baselineVariance);
    }
  }
}

}  // namespace FullWaveform
