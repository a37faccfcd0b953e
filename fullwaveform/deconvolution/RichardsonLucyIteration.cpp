#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace FullWaveform {
namespace {

constexpr int mostIterations = 40;
constexpr int iterationsBeforeRise = 6;  // the sum of the corrections may rise this often
constexpr double leastChange = 0.02;     // of that sum

/// Returns the largest interpolated value, counts.
double interpolate(std::span<unsigned short const> samples, std::uint32_t steps, double noise,
                   std::span<double> observed) {
  double const step = 1.0 / static_cast<double>(steps);
  double largest = 0.0;
  for (std::size_t u = 0; u < observed.size(); ++u) {
    double const x = static_cast<double>(u) * step;
    auto const j = std::min(static_cast<std::size_t>(x), samples.size() - 1);
    double const difference = j + 1 < samples.size() ? samples[j + 1] - samples[j] : 0.0;
    double const value = samples[j] + (x - static_cast<double>(j)) * difference;
    largest = std::max(largest, value);
    observed[u] = std::max(value - noise, 0.0);
  }
  return largest;
}

/// Returns the largest value above the noise, counts.
double subtractNoise(std::span<unsigned short const> samples, double noise, std::span<double> observed) {
  double largest = 0.0;
  for (std::size_t i = 0; i < observed.size(); ++i) {
    observed[i] = std::max(samples[i] - noise, 0.0);
    largest = std::max(largest, observed[i]);
  }
  return largest;
}

/// One correction of the estimate; returns the sum of the correction factors.
double correct(std::span<double const> observed, SystemWaveConvolver& convolver, DeconvolutionMemory& memory,
               std::span<double> estimate) {
  convolver.blur(estimate, memory.convolved);
  for (std::size_t i = 0; i < observed.size(); ++i) {
    memory.ratio[i] = memory.convolved[i] == 0.0 ? 0.0 : observed[i] / memory.convolved[i];
  }
  convolver.blurReversed(memory.ratio, memory.correction);
  double sum = 0.0;
  for (std::size_t i = 0; i < observed.size(); ++i) {
    estimate[i] *= memory.correction[i];
    sum += memory.correction[i];
  }
  return sum;
}

}  // namespace

double observe(std::span<unsigned short const> samples, std::uint32_t steps, unsigned short noise,
               std::span<double> observed) {
  double const maximum =
      steps == 1 ? subtractNoise(samples, noise, observed) : interpolate(samples, steps, noise, observed);
  double const largest = *std::max_element(observed.begin(), observed.end());
  double const unit = largest > 0.0 ? largest : 1.0;
  for (double& value : observed) {
    value /= unit;
  }
  return maximum;
}

int deconvolve(std::span<double const> observed, SystemWaveConvolver convolver, DeconvolutionMemory& memory,
               std::span<double> estimate) {
  memory.convolved.resize(observed.size());
  memory.ratio.resize(observed.size());
  memory.correction.resize(observed.size());
  double previous = 0.0;
  int k = 0;
  while (k < mostIterations) {
    double const sum = correct(observed, convolver, memory, estimate);
    bool const mayGoOn = sum <= previous || k < iterationsBeforeRise;
    ++k;
    // A sum that is not a number ends the loop too.
    if (!mayGoOn || !(std::abs(previous - sum) >= leastChange)) {
      break;
    }
    previous = sum;
  }
  return k;
}

void scaleToCounts(double maximum, double noise, std::span<double> estimate) {
  double const largest = *std::max_element(estimate.begin(), estimate.end() - 1);
  for (double& value : estimate) {
    value = value * (maximum - noise) / largest + noise;
  }
}

}  // namespace FullWaveform
