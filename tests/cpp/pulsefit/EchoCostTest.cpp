#include <fullwaveform/pulsefit/EchoCost.h>

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

using Testing::gaussianModel;
using Testing::pulseWidth;

PulseFitSettings settingsOf(double falseAlarms, double minEchoCost = 0.0) {
  PulseFitSettings settings;
  settings.falseAlarms = falseAlarms;
  settings.minEchoCost = minEchoCost;
  return settings;
}

TEST(EchoCost, EquivalentWidthOfAGaussianIsItsOwn) {
  EXPECT_NEAR(EchoCost::equivalentWidth(gaussianModel()), pulseWidth, 1e-3);
}

TEST(EchoCost, EquivalentWidthOfACosineInClosedForm) {
  // (1 + cos(pi x / w)) / 2 for |x| < w: the integrals are 3 w / 4 and pi^2 / (4 w).
  PulseModel model = gaussianModel();
  model.firstLag = -6.0;
  model.pulse.clear();
  for (int i = 0; i <= 12 * 16; ++i) {
    double const x = -6.0 + i / 16.0;
    model.pulse.push_back(std::abs(x) < 4.0 ? 0.5 + 0.5 * std::cos(std::numbers::pi * x / 4.0) : 0.0);
  }
  EXPECT_NEAR(EchoCost::equivalentWidth(model), 1.55939, 1e-3);  // sqrt(1.5) 4 / pi
}

TEST(EchoCost, CorrelatedNoiseCrossesALevelMoreOrLessOften) {
  // The noise of neighbouring samples is correlated by (K - 1) / (2 c), where K is the square of the noise
  // correlation and c that of the pulse with itself, a sample later. For a Gaussian the mean square of the
  // derivative of the filtered noise is then (1 + (K - 1) (1 - 1 / (2 s^2))) / K times that of white noise.
  PulseModel model = gaussianModel();
  model.noiseCorrelation = 0.62;
  EXPECT_NEAR(EchoCost::equivalentWidth(model), 1.50286, 2e-3);  // 1.69864 / sqrt(1.27751)
  model.noiseCorrelation = 1.4;
  EXPECT_NEAR(EchoCost::equivalentWidth(model), 1.77566, 2e-3);  // 1.69864 / sqrt(0.91513)
}

TEST(EchoCost, FollowsFromTheRateOfFalseAlarms) {
  // A Gaussian of FWHM 4 has 80 / (2 pi sqrt(2) 1.69864) = 5.3000 upcrossings in 80 samples.
  PulseModel const model = gaussianModel();
  EXPECT_NEAR(EchoCost(model, settingsOf(10.0)).at(80), 12.5458, 1e-3);  // 2 ln(530.00)
  EXPECT_NEAR(EchoCost(model, settingsOf(1.0)).at(80), 17.1509, 1e-3);
  EXPECT_NEAR(EchoCost(model, settingsOf(0.1)).at(80), 21.7561, 1e-3);
  EXPECT_NEAR(EchoCost(model, settingsOf(1.0)).at(400), 20.3698, 1e-3);
}

TEST(EchoCost, ExceedsThreeStandardDeviations) {
  EXPECT_EQ(EchoCost(gaussianModel(), settingsOf(100.0)).at(1), 9.0);
}

TEST(EchoCost, FloorDependsOnTheScatter) {
  PulseModel model = gaussianModel();
  double const unset = PulseFitSettings().minEchoCost;
  EXPECT_EQ(EchoCost(model, settingsOf(1.0, unset)).at(80), 25.0);
  model.scatter = EchoCost::smallScatter;
  EXPECT_EQ(EchoCost(model, settingsOf(1.0, unset)).at(80), 40.0);
  EXPECT_EQ(EchoCost(model, settingsOf(1.0, 30.0)).at(80), 30.0);
  EXPECT_NEAR(EchoCost(model, settingsOf(1e-6, unset)).at(80), 44.7820, 1e-3);  // 2 ln(5.3000e9)
}

}  // namespace
}  // namespace FullWaveform
