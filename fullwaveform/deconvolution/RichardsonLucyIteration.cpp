#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/IterationKernels.h>

namespace FullWaveform {
namespace {

constexpr int maxIterations = 40;
constexpr int iterationsBeforeRise = 6;  // in which the sum of the correction factors may rise
constexpr double minChange = 0.02;       // of that sum

/// Of two convolutions by two transforms each.
std::uint64_t workOfIteration(std::size_t fftLength) {
  return 20 * std::uint64_t{fftLength} * static_cast<std::uint64_t>(std::bit_width(fftLength));
}

void interpolate(std::span<unsigned short const> samples, std::uint32_t steps, std::span<double> values) {
  double const step = 1.0 / static_cast<double>(steps);
  for (std::size_t u = 0; u < values.size(); ++u) {
    double const x = static_cast<double>(u) * step;
    auto const j = static_cast<std::size_t>(x);
    double const difference = samples[j + 1] - samples[j];
    values[u] = samples[j] + (x - static_cast<double>(j)) * difference;
  }
}

void clearOutside(std::span<double> values, IndexRange const& range) {
  std::fill_n(values.begin(), range.first, 0.0);
  std::fill(values.begin() + static_cast<std::ptrdiff_t>(range.first + range.count), values.end(), 0.0);
}

/// A deconvolution in progress. Between two corrections the workspace's input holds the estimate.
class Iteration {
 public:
  Iteration(std::span<double const> observed, ConvolutionWorkspace& workspace, std::ptrdiff_t offset,
            std::span<double> estimate)
      : workspace(workspace),
        input(workspace.input().first(std::min(observed.size(), workspace.fftLength()))),
        valid(validRange(workspace.fftLength(), offset, input.size())),
        begin(static_cast<std::size_t>(offset + static_cast<std::ptrdiff_t>(valid.first))),
        observed(observed.subspan(valid.first, valid.count)),
        estimate(estimate.subspan(valid.first, valid.count)) {
    workspace.load(estimate);
    clearOutside(estimate, valid);
  }

  /// Corrects the estimate once; returns the sum of the correction factors.
  double correct() {
    InstructionSet const set = workspace.instructionSet;
    double const scale = 1.0 / static_cast<double>(workspace.fftLength());
    auto const blurred = workspace.convolveInput(workspace.psfSpectrum());
    IterationKernels::divide(set, observed, blurred.data() + begin, scale, input.data() + valid.first);
    clearOutside(input, valid);
    auto const factors = workspace.convolveInput(workspace.psfReversedSpectrum());
    return IterationKernels::correct(set, estimate, factors.data() + begin, scale,
                                     input.data() + valid.first);
  }

 private:
  ConvolutionWorkspace& workspace;
  std::span<double> input;
  IndexRange valid;
  std::size_t begin;  ///< index in a convolution of the first valid value
  std::span<double const> observed;
  std::span<double> estimate;
};

}  // namespace

double prepareObserved(std::span<unsigned short const> samples, std::uint32_t steps, unsigned short noise,
                       InstructionSet set, std::span<double> observed) {
  interpolate(samples, steps, observed);
  double const maximum = IterationKernels::maximum(set, observed);
  double const aboveNoise = std::max(maximum - noise, 0.0);
  IterationKernels::subtractNoise(set, observed, noise, aboveNoise > 0.0 ? aboveNoise : 1.0);
  return steps == 1 ? aboveNoise : maximum;
}

int deconvolve(std::span<double const> observed, ConvolutionWorkspace& workspace, std::ptrdiff_t offset,
               std::span<double> estimate, WorkMeter* meter) {
  std::uint64_t const work = workOfIteration(workspace.fftLength());
  Iteration iteration(observed, workspace, offset, estimate);
  double previous = 0.0;
  int k = 0;
  while (k < maxIterations) {
    spend(meter, work);
    double const sum = iteration.correct();
    bool const mayContinue = sum <= previous || k < iterationsBeforeRise;
    ++k;
    // Negated so that a NaN sum ends the loop.
    if (!mayContinue || !(std::abs(previous - sum) >= minChange)) {
      break;
    }
    previous = sum;
  }
  return k;
}

double scalingMaximum(InstructionSet set, std::span<double const> estimate) {
  return IterationKernels::maximum(set, estimate.first(estimate.size() - 1));
}

void scaleToCounts(double maximum, double noise, InstructionSet set, std::span<double const> estimate,
                   std::span<unsigned short> counts) {
  IterationKernels::toCounts(set, estimate, maximum - noise, scalingMaximum(set, estimate), noise,
                             counts.data());
}

}  // namespace FullWaveform
