#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

#include <algorithm>
#include <cmath>

#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/IterationKernels.h>

namespace FullWaveform {
namespace {

constexpr int mostIterations = 40;
constexpr int iterationsBeforeRise = 6;  // the sum of the corrections may rise this often
constexpr double leastChange = 0.02;     // of that sum

void interpolate(std::span<unsigned short const> samples, std::uint32_t steps, std::span<double> values) {
  double const step = 1.0 / static_cast<double>(steps);
  for (std::size_t u = 0; u < values.size(); ++u) {
    double const x = static_cast<double>(u) * step;
    auto const j = static_cast<std::size_t>(x);
    double const difference = samples[j + 1] - samples[j];
    values[u] = samples[j] + (x - static_cast<double>(j)) * difference;
  }
}

void clearOutside(std::span<double> values, Stretch const& stretch) {
  std::fill_n(values.begin(), stretch.first, 0.0);
  std::fill(values.begin() + static_cast<std::ptrdiff_t>(stretch.first + stretch.count), values.end(), 0.0);
}

/// A signal in the transforms of a workspace, whose input holds the estimate between two corrections.
class Iteration {
 public:
  Iteration(std::span<double const> observed, ConvolutionWorkspace& workspace, std::ptrdiff_t offset,
            std::span<double> estimate)
      : workspace(workspace),
        input(workspace.input().first(std::min(observed.size(), workspace.fftLength()))),
        reach(reachOf(workspace.fftLength(), offset, input.size())),
        begin(static_cast<std::size_t>(offset + static_cast<std::ptrdiff_t>(reach.first))),
        observed(within(observed)),
        estimate(within(estimate)) {
    workspace.load(estimate);
    clearOutside(estimate, reach);
  }

  /// One correction of the estimate; returns the sum of the correction factors.
  double correct() {
    InstructionSet const set = workspace.instructionSet;
    double const scale = 1.0 / static_cast<double>(workspace.fftLength());
    auto const blurred = workspace.convolveInput(workspace.psfSpectrum());
    IterationKernels::divide(set, observed, blurred.data() + begin, scale, input.data() + reach.first);
    clearOutside(input, reach);
    auto const factors = workspace.convolveInput(workspace.psfReversedSpectrum());
    return IterationKernels::correct(set, estimate, factors.data() + begin, scale,
                                     input.data() + reach.first);
  }

 private:
  template <class Value>
  [[nodiscard]] std::span<Value> within(std::span<Value> values) const {
    return values.subspan(reach.first, reach.count);
  }

  ConvolutionWorkspace& workspace;
  std::span<double> input;
  Stretch reach;
  std::size_t begin;  ///< of the results that belong to the stretch
  std::span<double const> observed;
  std::span<double> estimate;
};

}  // namespace

double observe(std::span<unsigned short const> samples, std::uint32_t steps, unsigned short noise,
               InstructionSet set, std::span<double> observed) {
  interpolate(samples, steps, observed);
  double const maximum = IterationKernels::largest(set, observed);
  double const aboveNoise = std::max(maximum - noise, 0.0);
  IterationKernels::subtractNoise(set, observed, noise, aboveNoise > 0.0 ? aboveNoise : 1.0);
  return steps == 1 ? aboveNoise : maximum;
}

int deconvolve(std::span<double const> observed, ConvolutionWorkspace& workspace, std::ptrdiff_t offset,
               std::span<double> estimate) {
  Iteration iteration(observed, workspace, offset, estimate);
  double previous = 0.0;
  int k = 0;
  while (k < mostIterations) {
    double const sum = iteration.correct();
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

void scaleToCounts(double maximum, double noise, InstructionSet set, std::span<double const> estimate,
                   std::span<unsigned short> counts) {
  double const largest = IterationKernels::largest(set, estimate.first(estimate.size() - 1));
  IterationKernels::toCounts(set, estimate, maximum - noise, largest, noise, counts.data());
}

}  // namespace FullWaveform
