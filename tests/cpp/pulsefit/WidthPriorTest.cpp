#include <fullwaveform/pulsefit/WidthPrior.h>

#include <cmath>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

/// -2 ln of the density, by numerical convolution of its two parts.
double energyByConvolution(double variance, double spread, double widening) {
  double density = 0.0;
  double const step = widening / 4000.0;
  for (double u = 0.5 * step; u < 40.0 * widening; u += step) {
    double const x = (variance - u) / spread;
    density += std::exp(-0.5 * x * x - u / widening) * step;
  }
  return -2.0 * std::log(density / (spread * widening));
}

TEST(WidthPrior, IsTheConvolutionOfScatterAndWidening) {
  double const spread = 0.1;
  double const widening = 0.4;
  WidthPrior const prior(spread, widening);
  double const atZero = energyByConvolution(0.0, spread, widening);
  for (double const variance : {-0.3, -0.1, 0.0, 0.05, 0.2, 1.0, 3.0}) {
    EXPECT_NEAR(prior.at(variance).value, energyByConvolution(variance, spread, widening) - atZero, 1e-4)
        << variance;
  }
}

TEST(WidthPrior, SlopeAndCurvatureAreThoseOfTheConvolution) {
  double const spread = 0.2;
  double const widening = 0.3;
  WidthPrior const prior(spread, widening);
  double const step = 1e-3;
  for (double const variance : {-0.4, 0.0, 0.3, 1.5}) {
    double const below = energyByConvolution(variance - step, spread, widening);
    double const here = energyByConvolution(variance, spread, widening);
    double const above = energyByConvolution(variance + step, spread, widening);
    EXPECT_NEAR(prior.at(variance).slope, (above - below) / (2.0 * step), 1e-2) << variance;
    EXPECT_NEAR(prior.at(variance).curvature, (above - 2.0 * here + below) / (step * step), 0.05) << variance;
  }
}

TEST(WidthPrior, OfSeveralIsWider) {
  WidthPrior const prior = WidthPrior::ofSeveral(0.3, 1.0);
  double const atZero = energyByConvolution(0.0, 0.5, 3.0);  // 0.5^2 = 0.3^2 + 0.4^2
  for (double const variance : {-0.4, 0.3, 2.0}) {
    EXPECT_NEAR(prior.at(variance).value, energyByConvolution(variance, 0.5, 3.0) - atZero, 1e-4) << variance;
  }
}

TEST(WidthPrior, IsNormalWithoutWidening) {
  WidthPrior const prior(0.2, 0.0);
  EXPECT_NEAR(prior.at(0.2).value, 1.0, 5e-3);
  EXPECT_NEAR(prior.at(-0.4).value, 4.0, 1e-2);
  EXPECT_NEAR(prior.at(0.2).slope, 10.0, 0.05);
  EXPECT_NEAR(prior.at(0.2).curvature, 50.0, 0.1);
}

TEST(WidthPrior, RisesLinearlyWithLargeWidening) {
  WidthPrior const prior(0.01, 0.5);
  EXPECT_NEAR(prior.at(25.0).value - prior.at(20.0).value, 20.0, 1e-9);  // 2 x 5 / 0.5
  EXPECT_NEAR(prior.at(25.0).curvature, 0.0, 1e-9);
}

TEST(WidthPrior, StaysFiniteFarFromItsMean) {
  for (double const spread : {1e-3, 0.02, 5.0}) {
    for (double const widening : {0.0, 1e-6, 0.1, 30.0}) {
      for (double const variance : {-0.4, 0.0, 1e-9, 25.0}) {
        WidthPrior::Energy const energy = WidthPrior(spread, widening).at(variance);
        EXPECT_TRUE(std::isfinite(energy.value)) << spread << " " << widening << " " << variance;
        EXPECT_TRUE(std::isfinite(energy.slope)) << spread << " " << widening << " " << variance;
        EXPECT_GE(energy.curvature, 0.0);
      }
    }
  }
}

}  // namespace
}  // namespace FullWaveform
