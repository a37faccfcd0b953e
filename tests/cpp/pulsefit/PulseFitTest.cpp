#include <fullwaveform/pulsefit/PulseFit.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/pulsefit/EchoSearch.h>

#include "pulsefit/TestPulses.h"
#include "support/HeapCount.h"

namespace FullWaveform {
namespace {

using Testing::Counts;
using Testing::gaussian;
using Testing::gaussianModel;
using Testing::noisyWaveform;
using Testing::pulseWidth;
using Testing::TrueEcho;
using Testing::waveform;
using Echoes = std::vector<PulseEcho>;

Echoes fitted(Counts const& samples, PulseModel const& model = gaussianModel(),
              PulseFitSettings const& settings = {}) {
  PulseFit fit(model, settings);
  PulseFitResult const result = fit.apply(samples);
  return {result.echoes.begin(), result.echoes.end()};
}

TEST(PulseFit, FindsAnIsolatedEcho) {
  Echoes const echoes = fitted(waveform(80, {{33.37, 1000.0}}));
  ASSERT_EQ(echoes.size(), 1U);
  EXPECT_NEAR(echoes[0].position, 33.37, 1e-3);  // samples; they are rounded to whole counts
  EXPECT_NEAR(echoes[0].amplitude, 1000.0, 1.0);
  EXPECT_NEAR(echoes[0].fwhm, 4.0, 0.01);
  EXPECT_EQ(echoes[0].flags, 0);
}

TEST(PulseFit, PositionUncertaintyIsTheCramerRaoBound) {
  // By symmetry the position does not depend on the other parameters: its Fisher information is that of a
  // Gaussian of known shape, A^2 sqrt(pi) / (2 width noise^2).
  double const amplitude = 200.0;
  Echoes const echoes = fitted(waveform(80, {{40.0, amplitude}}));
  ASSERT_EQ(echoes.size(), 1U);
  double const bound = 2.0 / amplitude * std::sqrt(2.0 * pulseWidth / std::sqrt(std::numbers::pi));
  EXPECT_NEAR(echoes[0].sigmaPosition / bound, 1.0, 0.005);
}

TEST(PulseFit, ErrorsAreAsLargeAsStated) {
  std::mt19937 random(3);
  std::uniform_real_distribution<double> place(25.0, 55.0);
  PulseFit fit(gaussianModel());
  double squares = 0.0;
  double amplitudes = 0.0;
  int const runs = 2000;
  for (int run = 0; run < runs; ++run) {
    TrueEcho const truth{place(random), 60.0};
    PulseFitResult const result = fit.apply(noisyWaveform(80, {truth}, random));
    ASSERT_EQ(result.echoes.size(), 1U);
    PulseEcho const& echo = result.echoes[0];
    squares += std::pow((echo.position - truth.position) / echo.sigmaPosition, 2.0);
    amplitudes += std::pow((echo.amplitude - truth.amplitude) / echo.sigmaAmplitude, 2.0);
  }
  // Three standard errors of an rms of 2000 values are 0.05; rounding to counts adds 1 % to the noise.
  EXPECT_NEAR(std::sqrt(squares / runs), 1.01, 0.05);
  EXPECT_NEAR(std::sqrt(amplitudes / runs), 1.0, 0.06);
}

TEST(PulseFit, AddsTheWidenedPulsesOfEchoes) {
  // Widened by a Gaussian, a Gaussian pulse is one of the given width and height.
  PulseFit const fit(gaussianModel());
  std::vector<PulseEcho> echoes(2);
  echoes[0] = {.position = 30.3, .amplitude = 100.0, .fwhm = 4.0};
  echoes[1] = {.position = 34.9, .amplitude = 50.0, .fwhm = 7.0};
  double const wide = 7.0 / std::sqrt(8.0 * std::log(2.0));
  std::vector<double> const places{20.0, 30.3, 31.77, 34.9, 41.6, 500.0};
  std::vector<double> heights(places.size(), 10.0);
  fit.addPulses(echoes, places, heights);
  for (std::size_t i = 0; i < places.size(); ++i) {
    double const expected =
        10.0 + 100.0 * gaussian(places[i] - 30.3) + 50.0 * gaussian(places[i] - 34.9, wide);
    EXPECT_NEAR(heights[i], expected, 0.02) << places[i];
  }
}

TEST(PulseFit, SeparatesTwoEchoesCloserThanTheirWidth) {
  Echoes const echoes = fitted(waveform(80, {{40.0, 400.0}, {42.4, 300.0}}));  // 0.6 widths apart
  ASSERT_EQ(echoes.size(), 2U);
  EXPECT_NEAR(echoes[0].position, 40.0, 0.05);
  EXPECT_NEAR(echoes[1].position, 42.4, 0.05);
  EXPECT_NEAR(echoes[0].amplitude, 400.0, 20.0);
}

TEST(PulseFit, FreesTheWidthOfAWideEcho) {
  Echoes const echoes = fitted(waveform(80, {{40.0, 300.0, 1.5 * pulseWidth}}));
  ASSERT_EQ(echoes.size(), 1U);
  EXPECT_NEAR(echoes[0].fwhm, 6.0, 0.05);
  EXPECT_NEAR(echoes[0].amplitude, 300.0, 2.0);
  EXPECT_NE(echoes[0].flags & FREE_WIDTH, 0);
}

TEST(PulseFit, UsesClippedSamples) {
  PulseFitSettings settings;
  settings.digitiserLimit = 255.0;
  PulseFit fit(gaussianModel(), settings);
  PulseFitResult const result = fit.apply(waveform(80, {{40.3, 1000.0}}, 255.0));
  ASSERT_EQ(result.echoes.size(), 1U);
  EXPECT_NEAR(result.echoes[0].position, 40.3, 0.02);
  EXPECT_NEAR(result.echoes[0].amplitude, 1000.0, 30.0);
  EXPECT_NE(result.echoes[0].flags & CLIPPED, 0);
  EXPECT_EQ(result.clippedSamples, 6U);  // 38 to 43: 1000 exp(-x^2 / 2 width^2) >= 234.5 for |x| <= 2.89
}

TEST(PulseFit, RingingOfThePulseIsNoEcho) {
  PulseModel model = gaussianModel();
  auto const ringing = [](double x) { return gaussian(x) + 0.05 * gaussian(x - 10.0); };
  model.pulse.clear();
  for (int i = 0; i <= 40 * 16; ++i) {
    model.pulse.push_back(ringing(model.firstLag + i / 16.0));
  }
  Counts samples;
  for (int i = 0; i < 80; ++i) {
    samples.push_back(static_cast<unsigned short>(std::lround(20.0 + 1000.0 * ringing(i - 30.2))));
  }
  EXPECT_EQ(fitted(samples, model).size(), 1U);
  EXPECT_GT(fitted(samples).size(), 1U);  // the pulse without ringing needs a second echo
}

TEST(PulseFit, NoiseHasNoEchoes) {
  std::mt19937 random(4);
  PulseFit fit(gaussianModel());
  for (int run = 0; run < 500; ++run) {
    PulseFitResult const result = fit.apply(noisyWaveform(80, {}, random));
    EXPECT_TRUE(result.echoes.empty());
    EXPECT_NEAR(result.baseline, 20.0, 1.5);
  }
}

TEST(PulseFit, ReducedChiSquareIsNearOne) {
  std::mt19937 random(5);
  PulseFit fit(gaussianModel());
  double sum = 0.0;
  for (int run = 0; run < 300; ++run) {
    sum += fit.apply(noisyWaveform(80, {{40.0, 100.0}}, random)).reducedChiSquare;
  }
  EXPECT_NEAR(sum / 300.0, 1.02, 0.03);  // 0.16 per waveform; rounding adds 2 % to the variance
}

TEST(PulseFit, FindsAtMostTenEchoes) {
  std::vector<TrueEcho> truth;
  for (int i = 0; i < 14; ++i) {
    truth.push_back({20.0 + 12.0 * i, 300.0});
  }
  EXPECT_EQ(fitted(waveform(200, truth)).size(), 10U);
}

TEST(PulseFit, ShiftedSamplesShiftTheEchoes) {
  Counts const samples = waveform(80, {{30.2, 500.0}, {37.9, 200.0}});
  Counts shifted(5, 20);
  shifted.insert(shifted.end(), samples.begin(), samples.end() - 5);
  Echoes const before = fitted(samples);
  Echoes const after = fitted(shifted);
  ASSERT_EQ(before.size(), 2U);
  ASSERT_EQ(after.size(), 2U);
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_NEAR(after[k].position, before[k].position + 5.0, 1e-3);
    EXPECT_NEAR(after[k].amplitude, before[k].amplitude, 0.1);
  }
}

TEST(PulseFit, EdgesAndShortWaveforms) {
  PulseFitSettings settings;
  settings.digitiserLimit = 255.0;
  PulseFit fit(gaussianModel(), settings);
  EXPECT_TRUE(fit.apply({}).echoes.empty());
  for (std::size_t samples = 1; samples < 20; ++samples) {
    for (Counts const& counts :
         {Counts(samples, 20), Counts(samples, 255), Counts(samples, 0), waveform(samples, {{1.0, 200.0}})}) {
      for (PulseEcho const& echo : fit.apply(counts).echoes) {
        EXPECT_TRUE(std::isfinite(echo.position));
        EXPECT_TRUE(std::isfinite(echo.amplitude));
      }
    }
  }
  PulseFitResult const atEdge = fit.apply(waveform(40, {{0.5, 200.0}}));
  ASSERT_EQ(atEdge.echoes.size(), 1U);
  EXPECT_NEAR(atEdge.echoes[0].position, 0.5, 0.05);
  EXPECT_NE(atEdge.echoes[0].flags & AT_EDGE, 0);
}

TEST(PulseFit, AnInvalidModelFindsNothing) {
  PulseModel model = gaussianModel();
  model.noiseRms = -1.0;
  PulseFit fit(model);
  EXPECT_EQ(fit.error(), "invalid noise rms -1 of the pulse model; expected 0.000001 to 1000000 counts");
  EXPECT_TRUE(fit.apply(waveform(80, {{40.0, 500.0}})).echoes.empty());
}

TEST(PulseFit, NamesTheSettingThatIsInvalid) {
  auto const errorWith = [](auto const& change) {
    PulseFitSettings settings;
    change(settings);
    PulseFit fit(gaussianModel(), settings);
    EXPECT_TRUE(fit.apply(waveform(80, {{40.0, 500.0}})).echoes.empty());
    return fit.error();
  };
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(errorWith([](PulseFitSettings& s) { s.falseAlarms = 0.0; }),
            "invalid rate of false alarms 0 of the pulse fit; expected above 0 and at most 100 per 1000 "
            "waveforms");
  EXPECT_EQ(errorWith([](PulseFitSettings& s) { s.falseAlarms = nan; }).substr(0, 28),
            "invalid rate of false alarms");
  EXPECT_EQ(errorWith([](PulseFitSettings& s) { s.minEchoCost = -1.0; }),
            "invalid minimum cost of an echo -1 of the pulse fit; expected a finite number, at least 0");
  EXPECT_EQ(errorWith([](PulseFitSettings& s) { s.digitiserLimit = nan; }).substr(0, 23),
            "invalid digitiser limit");
  EXPECT_EQ(errorWith([](PulseFitSettings& s) { s.maxVariance = 2e4; }),
            "invalid maximum variance 20000 of the pulse fit; expected above 0 and at most 10000 samples "
            "squared");
}

TEST(PulseFit, MaxVarianceBoundsTheWidth) {
  std::vector<TrueEcho> const wide{{60.0, 300.0, 8.0}};  // an added variance of 61.1
  PulseFitSettings settings;
  settings.minEchoCost = 5e4;  // so that one echo must explain it
  settings.maxVariance = 100.0;
  Echoes const echoes = fitted(waveform(120, wide), gaussianModel(), settings);
  ASSERT_EQ(echoes.size(), 1U);
  EXPECT_NEAR(echoes[0].fwhm, 8.0 * std::sqrt(8.0 * std::log(2.0)), 0.05);
  settings.maxVariance = 25.0;
  Echoes const bounded = fitted(waveform(120, wide), gaussianModel(), settings);
  ASSERT_EQ(bounded.size(), 1U);
  EXPECT_NEAR(bounded[0].fwhm, 12.4257, 0.01);  // 2.35482 sqrt(1.69864^2 + 25)
}

TEST(PulseFit, DoesNotAllocateAfterALongerWaveform) {
  PulseFit fit(gaussianModel());
  Counts const samples = waveform(120, {{30.0, 500.0}, {34.0, 300.0}, {80.0, 400.0}});
  fit.apply(samples);
  std::size_t const before = Testing::heapAllocations();
  fit.apply(std::span(samples).first(100));
  EXPECT_EQ(Testing::heapAllocations(), before);
}

TEST(PulseFit, DoesNotAllocateForTheFirstClippedWaveform) {
  PulseFitSettings settings;
  settings.digitiserLimit = 255.0;
  PulseFit fit(gaussianModel(), settings);
  fit.apply(waveform(80, {{40.0, 100.0}}));
  Counts const clipped = waveform(80, {{40.0, 3000.0}}, 255.0);
  std::size_t const before = Testing::heapAllocations();
  fit.apply(clipped);
  EXPECT_EQ(Testing::heapAllocations(), before);
}

TEST(PulseFit, ResultDoesNotDependOnWaveformsBefore) {
  PulseFit fit(gaussianModel());
  Counts const samples = waveform(90, {{30.0, 500.0}, {34.0, 300.0}});
  PulseFitResult const first = fit.apply(samples);
  Echoes const expected(first.echoes.begin(), first.echoes.end());
  fit.apply(waveform(300, {{100.0, 5000.0}, {200.0, 3000.0}, {206.0, 900.0}}));
  PulseFitResult const again = fit.apply(samples);
  ASSERT_EQ(again.echoes.size(), expected.size());
  for (std::size_t k = 0; k < expected.size(); ++k) {
    EXPECT_EQ(again.echoes[k].position, expected[k].position);
    EXPECT_EQ(again.echoes[k].sigmaPosition, expected[k].sigmaPosition);
  }
}

TEST(EchoSearch, EveryInstructionSetGivesTheSameBits) {
  if (!isAvailable(InstructionSet::Avx2)) {
    GTEST_SKIP() << "this machine has no AVX2";
  }
  PulseModel model = gaussianModel();
  model.scatter = 0.005;
  PulseTable const table(model);
  std::mt19937 random(6);
  std::uniform_real_distribution<double> place(10.0, 90.0);
  for (int run = 0; run < 100; ++run) {
    Counts const samples = noisyWaveform(100, {{place(random), 500.0}, {place(random), 80.0}}, random);
    std::vector<Hypothesis> found;
    std::vector<FitMatrix> covariances;
    for (InstructionSet const set : {InstructionSet::Baseline, InstructionSet::Avx2}) {
      EchoFit fit(model, table, set);
      fit.setSignal(samples, 400.0);
      found.push_back(EchoSearch(table, set).run(fit, model.baseline, 40.0));
      EXPECT_TRUE(fit.covariance(found.back(), covariances.emplace_back()));
    }
    EXPECT_EQ(covariances[0], covariances[1]);
    ASSERT_EQ(found[0].count, found[1].count);
    EXPECT_EQ(found[0].cost, found[1].cost);
    EXPECT_EQ(found[0].baseline, found[1].baseline);
    for (std::size_t k = 0; k < found[0].count; ++k) {
      EXPECT_EQ(found[0].echoes[k].position, found[1].echoes[k].position);
      EXPECT_EQ(found[0].echoes[k].amplitude, found[1].echoes[k].amplitude);
      EXPECT_EQ(found[0].echoes[k].variance, found[1].echoes[k].variance);
    }
  }
}

}  // namespace
}  // namespace FullWaveform
