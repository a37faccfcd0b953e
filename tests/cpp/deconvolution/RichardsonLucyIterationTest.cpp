#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/deconvolution/FftConvolution.h>
#include <richardson_lucy/RichardsonLucyCases.h>

#include "deconvolution/PulseWaveforms.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Values = std::vector<double>;

TEST(PrepareObserved, InterpolatesAndScales) {
  Values observed(10);
  Samples const samples{20, 70, 45};
  EXPECT_EQ(prepareObserved(samples, 5, 20, widestInstructionSet(), observed), 70.0);
  Values const expected{0.0, 0.2, 0.4, 0.6, 0.8, 1.0, 0.9, 0.8, 0.7, 0.6};
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_NEAR(observed[i], expected[i], 1e-15) << i;
  }
}

TEST(PrepareObserved, EndsBeforeTheLastSample) {
  Values observed(5);
  EXPECT_NEAR(prepareObserved(Samples{20, 120}, 5, 20, widestInstructionSet(), observed), 100.0, 1e-12);
  EXPECT_NEAR(observed[4], 1.0, 1e-15);
  EXPECT_NEAR(observed[1], 0.25, 1e-15);
}

TEST(PrepareObserved, ClipsAtTheNoise) {
  Values observed(4);
  EXPECT_EQ(prepareObserved(Samples{30, 10, 50}, 2, 25, widestInstructionSet(), observed), 30.0);
  // 30, 20, 10, 30 less 25.
  EXPECT_EQ(observed, (Values{1.0, 0.0, 0.0, 1.0}));
}

TEST(PrepareObserved, WithoutUpSamplingReturnsTheMaximumAboveTheNoise) {
  Values observed(3);
  EXPECT_EQ(prepareObserved(Samples{10, 70, 45, 500}, 1, 20, widestInstructionSet(), observed), 50.0);
  EXPECT_EQ(observed, (Values{0.0, 1.0, 0.5}));
}

TEST(PrepareObserved, IsZeroWithoutValuesAboveTheNoise) {
  Values observed(4);
  EXPECT_EQ(prepareObserved(Samples{10, 18, 10}, 2, 20, widestInstructionSet(), observed), 18.0);
  EXPECT_EQ(observed, Values(4, 0.0));
}

TEST(ScaleToCounts, TheMaximumExcludesTheLastValue) {
  Samples counts(4);
  scaleToCounts(120.0, 20.0, InstructionSet::Baseline, Values{0.5, 2.0, 1.0, 4.0}, counts);
  EXPECT_EQ(counts, (Samples{45, 120, 70, 220}));
}

TEST(ScaleToCounts, KeepsTheLow16Bits) {
  // One count per unit; counts are truncated towards 0 and wrap at 65536.
  Samples counts(7);
  Values const estimate{1e10, 1.0, 2.9, -2.9, 65536.0 * 3 + 7.5, -1e10, 0.0};
  scaleToCounts(1e10, 0.0, InstructionSet::Baseline, estimate, counts);
  EXPECT_EQ(counts, (Samples{0, 1, 2, 65534, 7, 0, 0}));
}

TEST(ScaleToCounts, IsZeroWithoutPositiveValues) {
  Samples counts(3, 9);
  scaleToCounts(120.0, 20.0, InstructionSet::Baseline, Values(3, 0.0), counts);
  EXPECT_EQ(counts, Samples(3, 0));
}

/// The samples of a case that are deconvolved.
std::span<unsigned short const> signalOf(RichardsonLucyCase const& known) {
  return std::span(known.samples).subspan(known.globalStart, known.globalEnd - known.globalStart + 1);
}

/// The pulse of 12 samples at the up-sampled step, divided by its maximum.
Values systemWave(std::uint32_t upSampling) {
  Values wave(11 * upSampling + 1);
  for (std::size_t i = 0; i < wave.size(); ++i) {
    wave[i] = pulse(static_cast<double>(i) / upSampling);
  }
  double const maximum = *std::max_element(wave.begin(), wave.end());
  std::transform(wave.begin(), wave.end(), wave.begin(), [&](double value) { return value / maximum; });
  return wave;
}

TEST(Deconvolve, AgreesWithNumPyInValuesAndIterations) {
  for (RichardsonLucyCase const& known : Testing::richardsonLucyCases()) {
    SCOPED_TRACE(known.kind);
    std::size_t const length = known.estimate.size();
    Values observed(length);
    double const maximum =
        prepareObserved(signalOf(known), known.upSampling, known.noise, widestInstructionSet(), observed);
    Values const wave = systemWave(known.upSampling);
    ConvolutionWorkspace workspace(wave, static_cast<std::uint32_t>(wave.size() + length - 1));
    Values estimate = observed;
    EXPECT_EQ(deconvolve(observed, workspace, kernelCentre(wave.size()), estimate), known.iterations);
    double const unit = *std::max_element(estimate.begin(), estimate.end() - 1);
    for (std::size_t i = 0; i < length; ++i) {
      EXPECT_NEAR(estimate[i] * (maximum - known.noise) / unit + known.noise, known.estimate[i], 1e-6)
          << "value " << i;
    }
  }
}

TEST(Deconvolve, ZeroConvolutionGivesZeroRatio) {
  // A kernel of zeros makes ratios, corrections and the change of their sum 0.
  ConvolutionWorkspace workspace(Values{0.0, 0.0}, 5);
  Values const observed(4, 1.0);
  Values estimate = observed;
  EXPECT_EQ(deconvolve(observed, workspace, kernelCentre(2), estimate), 1);
  EXPECT_EQ(estimate, Values(4, 0.0));
}

TEST(Deconvolve, EndsAtTheFirstIterationWithoutChange) {
  // One value and the kernel {0.5, 0.5}: blurred 0.5, ratio 2, correction 1. The first sum, 1, differs
  // from 0; the second does not differ from the first.
  ConvolutionWorkspace workspace(Values{0.5, 0.5}, 2);
  Values const observed{1.0};
  Values estimate = observed;
  EXPECT_EQ(deconvolve(observed, workspace, kernelCentre(2), estimate), 2);
  EXPECT_EQ(estimate, Values{1.0});
}

TEST(Deconvolve, ContinuesWhileTheSumChangesByAtLeast0p02) {
  // For one value y and the kernel {1, w} the first correction is w, which makes the estimate w y; all later
  // corrections are 1. The sums are w, 1, 1, starting from 0.
  auto const iterations = [](double w) {
    ConvolutionWorkspace workspace(Values{1.0, w}, 2);
    Values estimate{1.0};
    return deconvolve(Values{1.0}, workspace, kernelCentre(2), estimate);
  };
  EXPECT_EQ(iterations(0.0199), 1);
  EXPECT_EQ(iterations(0.0201), 3);
  EXPECT_EQ(iterations(0.9799), 3);
  EXPECT_EQ(iterations(0.9801), 2);
  EXPECT_EQ(iterations(1.0199), 2);
  EXPECT_EQ(iterations(1.0201), 3);
}

TEST(Deconvolve, EveryInstructionSetGivesTheSameBits) {
  for (RichardsonLucyCase const& known : Testing::richardsonLucyCases()) {
    Values const wave = systemWave(known.upSampling);
    Values observed(known.estimate.size());
    Values estimates[2];
    for (InstructionSet const set : {InstructionSet::Baseline, widestInstructionSet()}) {
      ConvolutionWorkspace workspace(wave, 512);
      workspace.instructionSet = set;
      prepareObserved(signalOf(known), known.upSampling, known.noise, set, observed);
      Values& estimate = estimates[set == InstructionSet::Baseline ? 0 : 1];
      estimate = observed;
      deconvolve(observed, workspace, kernelCentre(wave.size()), estimate);
    }
    EXPECT_EQ(estimates[0], estimates[1]) << known.kind;
  }
}

TEST(Deconvolve, NaNEndsAfterOneIteration) {
  ConvolutionWorkspace workspace(Values{1.0, 0.0}, 5);
  Values const observed(4, std::numeric_limits<double>::quiet_NaN());
  Values estimate = observed;
  EXPECT_EQ(deconvolve(observed, workspace, kernelCentre(2), estimate), 1);
}

}  // namespace
}  // namespace FullWaveform
