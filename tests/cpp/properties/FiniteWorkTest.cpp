// The number of iterations is bounded for arbitrary signals.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>
#include <fullwaveform/fitting/GaussianRefinement.h>
#include <gtest/gtest.h>

#include "properties/RandomScans.h"

namespace FullWaveform {
namespace {

using namespace Testing;

/// Zeros, noise of any rms, echoes clipped or not, single large samples.
std::vector<double> randomSignal(Rng& rng, std::size_t length) {
  std::vector<double> values(length);
  double const amplitude = rng.oneIn(4) ? 0.0 : rng.real(0.0, 65535.0);
  for (double& value : values) {
    value = rng.real(0.0, amplitude);
  }
  if (rng.oneIn(2)) {
    Samples const echoes = gaussians(rng, length, 0.5 * static_cast<double>(length), 8.0);
    std::transform(values.begin(), values.end(), echoes.begin(), values.begin(), std::plus<>());
  }
  if (rng.oneIn(4)) {
    values[static_cast<std::size_t>(rng.between(0, static_cast<int>(length) - 1))] = 65535.0;
  }
  return values;
}

TEST(FiniteWork, AFitNeedsAtMost20Evaluations) {
  Rng rng(11);
  GaussianRefinement refinement;
  int max = 0;
  for (int scene = 0; scene < 2000; ++scene) {
    std::vector<double> signal = randomSignal(rng, static_cast<std::size_t>(rng.between(4, 120)));
    for (double& value : signal) {
      value -= 20.0;
    }
    std::vector<double> parameters;
    for (int echo = rng.between(1, 5); echo > 0; --echo) {
      parameters.insert(parameters.end(),
                        {rng.real(-1e5, 1e5), rng.real(-200.0, 300.0), rng.real(-9.0, 9.0)});
    }
    int const evaluations = refinement.refine(signal, 0, parameters);
    ASSERT_LE(evaluations, 20) << scene;
    max = std::max(max, evaluations);
  }
  EXPECT_EQ(max, 20);  // the bound is reached
}

TEST(FiniteWork, ADeconvolutionNeedsAtMost40Iterations) {
  Rng rng(12);
  std::vector<double> const wave{0.05, 0.2, 0.4, 0.2, 0.1, 0.05};
  int max = 0;
  for (int scene = 0; scene < 300; ++scene) {
    std::vector<double> const signal = randomSignal(rng, static_cast<std::size_t>(rng.between(2, 300)));
    ConvolutionWorkspace workspace(wave, static_cast<std::uint32_t>(signal.size() + wave.size() - 1));
    std::vector<double> estimate = signal;
    int const iterations = deconvolve(signal, workspace, kernelCentre(wave.size()), estimate);
    ASSERT_LE(iterations, 40) << scene;
    ASSERT_GE(iterations, 1) << scene;
    max = std::max(max, iterations);
  }
  EXPECT_GT(max, 10);
}

}  // namespace
}  // namespace FullWaveform
