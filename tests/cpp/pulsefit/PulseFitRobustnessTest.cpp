#include <fullwaveform/pulsefit/PulseFit.h>

#include <cmath>
#include <cstddef>
#include <limits>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

using Testing::Counts;
using Testing::gaussian;
using Testing::gaussianModel;
using Testing::waveform;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

PulseFitSettings withLimit(double limit) {
  PulseFitSettings settings;
  settings.digitiserLimit = limit;
  return settings;
}

TEST(PulseFitRobustness, AllSamplesAtTheLimit) {
  PulseFit fit(gaussianModel(), withLimit(255.0));
  for (std::size_t const samples : {1U, 2U, 10U, 80U, 300U}) {
    PulseFitResult const result = fit.apply(Counts(samples, 255));
    EXPECT_EQ(result.clippedSamples, samples);
    EXPECT_LE(result.echoes.size(), 10U);
    EXPECT_TRUE(std::isfinite(result.baseline));
    for (PulseEcho const& echo : result.echoes) {
      EXPECT_TRUE(std::isfinite(echo.position));
      EXPECT_TRUE(std::isfinite(echo.amplitude));
      EXPECT_NE(echo.flags & CLIPPED, 0);
    }
  }
}

TEST(PulseFitRobustness, WithoutInformationTheUncertaintyIsNaN) {
  // Every sample is clipped and below the model, so that no residual depends on the echo.
  PulseFit fit(gaussianModel(), withLimit(255.0));
  PulseFitResult const result = fit.apply(Counts(10, 255));
  ASSERT_EQ(result.echoes.size(), 1U);
  PulseEcho const& echo = result.echoes[0];
  EXPECT_TRUE(std::isnan(echo.sigmaPosition));
  EXPECT_TRUE(std::isnan(echo.sigmaAmplitude));
  EXPECT_TRUE(std::isnan(echo.sigmaFwhm));
  EXPECT_TRUE(std::isnan(echo.significance));
  EXPECT_TRUE(std::isnan(result.reducedChiSquare));  // no sample has a weight
}

TEST(PulseFitRobustness, OneSample) {
  PulseFit fit(gaussianModel(), withLimit(255.0));
  for (Counts::value_type const count : Counts{0, 20, 100, 255}) {
    PulseFitResult const result = fit.apply(Counts(1, count));
    EXPECT_TRUE(std::isfinite(result.baseline));
    EXPECT_TRUE(std::isnan(result.reducedChiSquare));  // no degree of freedom
    EXPECT_LE(result.echoes.size(), 1U);
  }
}

TEST(PulseFitRobustness, APulseLongerThanTheWaveform) {
  PulseModel model = gaussianModel();
  model.firstLag = -30.0;
  model.pulse.clear();
  auto const ringing = [](double x) { return gaussian(x) + 0.05 * gaussian(x - 12.0); };
  for (int i = 0; i <= 70 * 16; ++i) {
    model.pulse.push_back(ringing(model.firstLag + i / 16.0));
  }
  Counts counts;
  for (int i = 0; i < 12; ++i) {
    counts.push_back(static_cast<unsigned short>(std::lround(20.0 + 500.0 * ringing(i - 5.3))));
  }
  PulseFit fit(model);
  PulseFitResult const result = fit.apply(counts);
  ASSERT_EQ(result.echoes.size(), 1U);
  EXPECT_NEAR(result.echoes[0].position, 5.3, 0.01);
  EXPECT_NEAR(result.echoes[0].amplitude, 500.0, 2.0);
}

TEST(PulseFitRobustness, NaNInTheModelIsAnError) {
  auto const finds = [](auto const& change) {
    PulseModel model = gaussianModel();
    change(model);
    PulseFit fit(model);
    EXPECT_NE(fit.error(), "");
    return fit.apply(waveform(80, {{40.0, 500.0}})).echoes.size();
  };
  EXPECT_EQ(finds([](PulseModel& m) { m.pulse[100] = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.firstLag = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.lagStep = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.baseline = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.baselineSpread = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.noiseRms = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.noiseCorrelation = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.scatter = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.varianceSpread = nan; }), 0U);
  EXPECT_EQ(finds([](PulseModel& m) { m.widening = nan; }), 0U);
}

TEST(PulseFitRobustness, AnEchoOutsideTheWaveformMustBeClear) {
  // The noise of one sample is twice that of the matched filter. Its deviation of 4.5 standard deviations
  // from the baseline is 9 of the matched filter, a gain of about 60.
  PulseModel model = gaussianModel();
  model.noiseCorrelation = 0.5;
  Counts counts(40, 20);
  counts[0] = 29;
  PulseFit fit(model);
  EXPECT_TRUE(fit.apply(counts).echoes.empty());
  counts[0] = 60;
  EXPECT_EQ(fit.apply(counts).echoes.size(), 1U);
}

}  // namespace
}  // namespace FullWaveform
