// Statistics of many fits against the truth. Bounds are three standard errors of the numbers of waveforms.
#include <fullwaveform/pulsefit/PulseFit.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

using Testing::Counts;
using Testing::gaussianModel;
using Testing::noisyWaveform;
using Testing::pulseWidth;
using Testing::TrueEcho;

constexpr double fwhm = 4.0;  // samples
// 2 counts of noise and a twelfth of a square count from rounding.
double const noiseRms = std::sqrt(4.0 + 1.0 / 12.0);

PulseModel model() {
  PulseModel result = gaussianModel();
  result.noiseRms = noiseRms;
  return result;
}

/// Errors over their stated standard deviations.
class Pulls {
 public:
  void add(double pull) { values.push_back(std::abs(pull)); }
  [[nodiscard]] double rms() const {
    double squares = 0.0;
    for (double const value : values) {
      squares += value * value;
    }
    return std::sqrt(squares / static_cast<double>(values.size()));
  }
  [[nodiscard]] double shareWithin(double limit) const {
    auto const within = std::count_if(values.begin(), values.end(), [&](double v) { return v < limit; });
    return static_cast<double>(within) / static_cast<double>(values.size());
  }

 private:
  std::vector<double> values;
};

/// An echo whose variance is drawn as the width prior of the model states.
TrueEcho drawn(double position, double snr, PulseModel const& model, std::mt19937& random) {
  std::normal_distribution<double> scatter(0.0, model.varianceSpread);
  std::exponential_distribution<double> widening(1.0 / model.widening);
  double const variance = std::max(scatter(random) + widening(random), -0.39);
  return {position, snr * noiseRms, std::sqrt(pulseWidth * pulseWidth + variance)};
}

class IsolatedEchoes : public testing::TestWithParam<double> {};

TEST_P(IsolatedEchoes, ReachTheBoundOfThePosition) {
  double const amplitude = GetParam() * noiseRms;
  double const bound =
      noiseRms / amplitude * std::sqrt(2.0 * pulseWidth / std::sqrt(std::numbers::pi));  // samples
  std::mt19937 random(11);
  std::uniform_real_distribution<double> place(25.0, 55.0);
  PulseFit fit(model());
  Pulls overBound;
  for (int run = 0; run < 2000; ++run) {
    TrueEcho const truth{place(random), amplitude};
    PulseFitResult const result = fit.apply(noisyWaveform(80, {truth}, random));
    ASSERT_EQ(result.echoes.size(), 1U);
    overBound.add((result.echoes[0].position - truth.position) / bound);
  }
  EXPECT_NEAR(overBound.rms(), 1.0, 0.05);
}

INSTANTIATE_TEST_SUITE_P(Snr, IsolatedEchoes, testing::Values(10.0, 100.0, 1000.0));

TEST(PulseFitQuality, StatedIntervalsHoldTheTruth) {
  std::mt19937 random(12);
  std::uniform_real_distribution<double> place(25.0, 55.0);
  PulseModel const prior = model();
  PulseFit fit(prior);
  Pulls position;
  Pulls amplitude;
  Pulls width;
  for (int run = 0; run < 2500; ++run) {
    TrueEcho const truth = drawn(place(random), 200.0, prior, random);
    PulseFitResult const result = fit.apply(noisyWaveform(80, {truth}, random));
    ASSERT_EQ(result.echoes.size(), 1U);
    PulseEcho const& echo = result.echoes[0];
    position.add((echo.position - truth.position) / echo.sigmaPosition);
    amplitude.add((echo.amplitude - truth.amplitude) / echo.sigmaAmplitude);
    width.add((echo.fwhm - fwhm * truth.width / pulseWidth) / echo.sigmaFwhm);
  }
  for (Pulls const& pulls : {position, amplitude, width}) {
    EXPECT_NEAR(pulls.shareWithin(1.0), 0.683, 0.028);
    EXPECT_NEAR(pulls.shareWithin(1.96), 0.950, 0.013);
  }
}

struct Pair {
  double snr;
  double separation;  // over the FWHM
};

class Pairs : public testing::TestWithParam<Pair> {};

TEST_P(Pairs, AreSeparatedWithHonestUncertainties) {
  auto const [snr, separation] = GetParam();
  std::mt19937 random(13);
  std::uniform_real_distribution<double> place(28.0, 48.0);
  PulseModel const prior = model();
  PulseFit fit(prior);
  Pulls pulls;
  int const runs = 600;
  int found = 0;
  for (int run = 0; run < runs; ++run) {
    double const position = place(random);
    TrueEcho const truth[2] = {drawn(position, snr, prior, random),
                               drawn(position + separation * fwhm, snr, prior, random)};
    PulseFitResult const result = fit.apply(noisyWaveform(80, {truth[0], truth[1]}, random));
    if (result.echoes.size() == 2) {
      ++found;
      for (std::size_t k = 0; k < 2; ++k) {
        pulls.add((result.echoes[k].position - truth[k].position) / result.echoes[k].sigmaPosition);
      }
    }
  }
  EXPECT_GE(found, 0.93 * runs);  // 95 % less three standard errors
  EXPECT_NEAR(pulls.rms(), 1.0, 0.13);
}

INSTANTIATE_TEST_SUITE_P(Closest, Pairs,
                         testing::Values(Pair{30.0, 0.9}, Pair{100.0, 0.55}, Pair{500.0, 0.4}));

TEST(PulseFitQuality, OverlappingWideEchoesHaveHonestUncertainties) {
  // As in vegetation: every width up to 1.25 times that of the pulse, where flat surfaces widen little.
  PulseModel prior = model();
  prior.varianceSpread = 0.015;
  prior.widening = 0.18;
  std::mt19937 random(14);
  std::uniform_real_distribution<double> place(28.0, 48.0);
  std::uniform_real_distribution<double> widening(1.0, 1.25);
  PulseFit fit(prior);
  Pulls pulls;
  int found = 0;
  int const runs = 800;
  for (int run = 0; run < runs; ++run) {
    double const position = place(random);
    TrueEcho const truth[2] = {{position, 100.0, pulseWidth * widening(random)},
                               {position + fwhm, 100.0, pulseWidth * widening(random)}};
    PulseFitResult const result = fit.apply(noisyWaveform(80, {truth[0], truth[1]}, random));
    if (result.echoes.size() == 2) {
      ++found;
      for (std::size_t k = 0; k < 2; ++k) {
        pulls.add((result.echoes[k].position - truth[k].position) / result.echoes[k].sigmaPosition);
      }
    }
  }
  EXPECT_GE(found, 0.98 * runs);
  EXPECT_NEAR(pulls.rms(), 1.0, 0.15);
}

TEST(PulseFitQuality, AWideEchoIsNotSplit) {
  std::mt19937 random(15);
  std::uniform_real_distribution<double> place(28.0, 48.0);
  PulseFit fit(model());
  int several = 0;
  for (int run = 0; run < 1000; ++run) {
    TrueEcho const truth{place(random), 100.0, std::sqrt(pulseWidth * pulseWidth + 2.0)};
    several += fit.apply(noisyWaveform(80, {truth}, random)).echoes.size() == 1 ? 0 : 1;
  }
  EXPECT_LE(several, 10);  // 0.5 % plus three standard errors
}

/// Number of echoes in waveforms of autoregressive noise of first order alone.
int alarmsIn(int waveforms, double correlation, PulseModel const& model, PulseFitSettings const& settings) {
  std::mt19937 random(16);
  std::normal_distribution<double> normal(0.0, 1.0);
  double const innovation = std::sqrt(1.0 - correlation * correlation);
  PulseFit fit(model, settings);
  Counts counts(80);
  int alarms = 0;
  for (int run = 0; run < waveforms; ++run) {
    double noise = normal(random);
    for (unsigned short& count : counts) {
      count = static_cast<unsigned short>(std::lround(20.0 + 2.0 * noise));
      noise = correlation * noise + innovation * normal(random);
    }
    alarms += static_cast<int>(fit.apply(counts).echoes.size());
  }
  return alarms;
}

struct Noise {
  double correlation;  // of neighbouring samples
  // Root of the sum of correlation^|k| exp(-k^2 / (4 width^2)) over all lags k; 2 % of it are white, by
  // rounding.
  double matchedFilter;
};

class FalseAlarms : public testing::TestWithParam<Noise> {};

TEST_P(FalseAlarms, AreAsManyAsStated) {
  PulseModel noisy = model();
  noisy.noiseCorrelation = GetParam().matchedFilter;
  PulseFitSettings settings;
  settings.falseAlarms = 10.0;
  settings.minEchoCost = 0.0;
  int const alarms = alarmsIn(8000, GetParam().correlation, noisy, settings);
  EXPECT_GT(alarms, 80.0 / 1.5);
  EXPECT_LT(alarms, 80.0 * 1.5);
}

INSTANTIATE_TEST_SUITE_P(Correlations, FalseAlarms,
                         testing::Values(Noise{0.0, 1.0}, Noise{0.36, 1.370}, Noise{-0.45, 0.638}));

TEST(PulseFitQuality, ClippedEchoesArePlaced) {
  std::mt19937 random(17);
  std::uniform_real_distribution<double> place(25.0, 55.0);
  std::uniform_real_distribution<double> height(300.0, 2000.0);
  PulseFitSettings settings;
  settings.digitiserLimit = 255.0;
  PulseFit fit(model(), settings);
  Pulls pulls;
  int within = 0;
  int const runs = 1000;
  for (int run = 0; run < runs; ++run) {
    TrueEcho const truth{place(random), height(random)};
    Counts counts = noisyWaveform(80, {truth}, random);
    for (unsigned short& count : counts) {
      count = std::min<unsigned short>(count, 255);
    }
    PulseFitResult const result = fit.apply(counts);
    ASSERT_EQ(result.echoes.size(), 1U);
    double const error = result.echoes[0].position - truth.position;
    within += std::abs(error) < 0.15 ? 1 : 0;
    pulls.add(error / result.echoes[0].sigmaPosition);
  }
  EXPECT_GE(within, 0.99 * runs);
  EXPECT_NEAR(pulls.rms(), 1.0, 0.1);
}

/// A pulse that rises within 4 samples and falls within 8, t samples after its start.
double skewedPulse(double t) {
  return t < 0.0 ? 0.0 : 1.9 * std::exp(-0.25 * t) * (1.0 - std::cos(0.5 * t));
}

TEST(PulseFitQuality, ASkewedPulseIsOneEcho) {
  constexpr double peak = 4.4286;  // 4 atan 2, where the derivative is 0
  PulseModel skewed = model();
  skewed.firstLag = -8.0;
  skewed.pulse.clear();
  for (int i = 0; i <= 48 * 16; ++i) {
    skewed.pulse.push_back(skewedPulse(skewed.firstLag + i / 16.0 + peak) / skewedPulse(peak));
  }
  std::mt19937 random(18);
  std::normal_distribution<double> noise(0.0, 2.0);
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  PulseFit fit(skewed);
  int within = 0;
  int surplus = 0;
  int const runs = 600;
  for (int run = 0; run < runs; ++run) {
    double const places[2] = {12.0 + 20.0 * uniform(random), 62.0 + 20.0 * uniform(random)};
    double const heights[2] = {40.0 * std::pow(37.5, uniform(random)),
                               40.0 * std::pow(37.5, uniform(random))};
    Counts counts;
    for (int i = 0; i < 130; ++i) {
      double value = 20.0 + noise(random);
      for (std::size_t k = 0; k < 2; ++k) {
        value += heights[k] * skewedPulse(i - places[k] + peak);
      }
      counts.push_back(static_cast<unsigned short>(std::lround(value)));
    }
    PulseFitResult const result = fit.apply(counts);
    for (double const place : places) {
      within += std::any_of(result.echoes.begin(), result.echoes.end(),
                            [&](PulseEcho const& echo) { return std::abs(echo.position - place) < 0.15; })
                    ? 1
                    : 0;
    }
    surplus += std::max(static_cast<int>(result.echoes.size()) - 2, 0);
  }
  EXPECT_GE(within, 0.97 * 2 * runs);
  EXPECT_LE(surplus, 0.005 * 2 * runs);
}

}  // namespace
}  // namespace FullWaveform
