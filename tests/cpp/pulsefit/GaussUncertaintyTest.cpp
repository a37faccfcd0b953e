#include <fullwaveform/pulsefit/GaussUncertainty.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/fitting/BaselineFit.h>

#include "support/HeapCount.h"

namespace FullWaveform {
namespace {

using Values = std::vector<double>;
using Samples = std::vector<unsigned short>;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
double const rootOfPi = std::sqrt(std::numbers::pi);
double const fwhmPerSigma = 2.0 * std::sqrt(2.0 * std::numbers::ln2);

struct Gaussian {
  double position;
  double height;
  double sigma;
};

struct Scene {
  std::vector<Gaussian> gaussians;
  std::size_t length = 90;
  Values covariance = {16.0};
  double baselineDeviation = 0.0;
  double reachInSigmas = 8.0;
  double positionSigma = 0.0;  // 0: that of each Gaussian
  double threshold = -infinity;
  double limit = infinity;
  Samples samples = {};
};

std::vector<EchoUncertainty> uncertaintiesOf(Scene scene) {
  scene.samples.resize(scene.length, 1000);
  Values positions;
  Values heights;
  Values sigmas;
  Values positionSigmas;
  Values reaches;
  for (auto const& [position, height, sigma] : scene.gaussians) {
    positions.push_back(position);
    heights.push_back(height);
    sigmas.push_back(sigma);
    positionSigmas.push_back(scene.positionSigma > 0.0 ? scene.positionSigma : sigma);
    reaches.push_back(scene.reachInSigmas * sigma);
  }
  std::vector<EchoUncertainty> result(positions.size());
  GaussUncertainty().apply({scene.samples, scene.threshold, scene.limit},
                           {scene.covariance, scene.baselineDeviation},
                           {positions, heights, sigmas, positionSigmas, reaches}, result);
  return result;
}

// For Gaussians wider than a sample, sums over samples are integrals to within 1e-8.

TEST(GaussUncertainty, AnIsolatedEchoHasTheCramerRaoBoundOfPositionAndWidth) {
  for (double const position : {45.0, 45.31, 45.5}) {
    EchoUncertainty const found = uncertaintiesOf({.gaussians = {{position, 200.0, 3.0}}})[0];
    // 2 s / sqrt(pi) (noise / height)^2 for both, the height being unknown, too.
    double const expected = std::sqrt(2.0 * 3.0 / rootOfPi) * 4.0 / 200.0;
    EXPECT_NEAR(found.position, expected, 1e-6 * expected);
    EXPECT_NEAR(found.fwhm, fwhmPerSigma * expected, 1e-6 * expected);
  }
}

TEST(GaussUncertainty, TheHeightOfAWideEchoIsThatOfTheSmoothedSamples) {
  // The parabola through five samples has the variance 17/35 of a sample at the middle one.
  Scene scene{.gaussians = {{300.0, 200.0, 30.0}}, .length = 601};
  EXPECT_NEAR(uncertaintiesOf(scene)[0].amplitude, 4.0 * std::sqrt(17.0 / 35.0), 1e-3);
  scene.baselineDeviation = 3.0;
  EXPECT_NEAR(uncertaintiesOf(scene)[0].amplitude, std::sqrt(16.0 * 17.0 / 35.0 + 9.0), 1e-3);
}

TEST(GaussUncertainty, AWrongBaselineWidensAnEcho) {
  Scene scene{.gaussians = {{45.3, 200.0, 3.0}}, .covariance = {1e-12}, .baselineDeviation = 2.0};
  EchoUncertainty const found = uncertaintiesOf(scene)[0];
  // Height and width fitted to a constant d: the width changes by sqrt(2) s d / height.
  EXPECT_NEAR(found.fwhm, fwhmPerSigma * std::numbers::sqrt2 * 3.0 * 2.0 / 200.0, 1e-6);
  EXPECT_NEAR(found.position, 0.0, 1e-6);
}

TEST(GaussUncertainty, TheOwnBaselineOfAWaveformIsTheMeanOfItsQuietSamples) {
  // Reaching from sample 33 to 57, the echo leaves 65 samples of 90.
  Scene scene{
      .gaussians = {{45.0, 200.0, 3.0}}, .baselineDeviation = 4.0 / std::sqrt(65.0), .reachInSigmas = 4.0};
  double const known = uncertaintiesOf(scene)[0].amplitude;
  scene.baselineDeviation = notANumber;
  EXPECT_NEAR(uncertaintiesOf(scene)[0].amplitude, known, 1e-12);
}

TEST(GaussUncertainty, NoiseThatIsEqualInNeighboursShiftsLess) {
  // With the correlation 1/2 of neighbours, 1 + cos w of the power is left at the frequency w. The derivative
  // of a wide Gaussian has low frequencies only: power and variance are doubled.
  Scene scene{.gaussians = {{300.0, 200.0, 30.0}}, .length = 601};
  double const white = uncertaintiesOf(scene)[0].position;
  scene.covariance = {16.0, 8.0};
  EXPECT_NEAR(uncertaintiesOf(scene)[0].position, std::numbers::sqrt2 * white, 1e-3 * white);
  scene.covariance = {16.0, -8.0};
  EXPECT_LT(uncertaintiesOf(scene)[0].position, 0.05 * white);
}

TEST(GaussUncertainty, EchoesFarApartDoNotAffectEachOther) {
  Gaussian const first{20.3, 200.0, 1.6};
  Gaussian const second{60.7, 80.0, 2.1};
  auto const both = uncertaintiesOf({.gaussians = {second, first}});
  EXPECT_DOUBLE_EQ(both[1].position, uncertaintiesOf({.gaussians = {first}})[0].position);
  EXPECT_DOUBLE_EQ(both[0].amplitude, uncertaintiesOf({.gaussians = {second}})[0].amplitude);
  EXPECT_DOUBLE_EQ(both[0].fwhm, uncertaintiesOf({.gaussians = {second}})[0].fwhm);
}

TEST(GaussUncertainty, OverlapMakesEchoesLessSure) {
  Gaussian const first{40.0, 200.0, 2.0};
  double const alone = uncertaintiesOf({.gaussians = {first}})[0].position;
  double previous = std::numeric_limits<double>::infinity();
  for (double const distance : {2.0, 4.0, 6.0, 8.0}) {
    double const found = uncertaintiesOf({.gaussians = {first, {40.0 + distance, 200.0, 2.0}}})[0].position;
    EXPECT_LT(found, previous);
    EXPECT_GT(found, alone);
    previous = found;
  }
  EXPECT_LT(previous, 1.1 * alone);
}

TEST(GaussUncertainty, ScaledCountsScaleTheUncertaintyOfTheHeightOnly) {
  Scene scene{.gaussians = {{40.2, 200.0, 1.6}, {44.9, 120.0, 2.0}}, .baselineDeviation = 1.0};
  auto const plain = uncertaintiesOf(scene);
  for (Gaussian& gaussian : scene.gaussians) {
    gaussian.height *= 4.0;
  }
  scene.covariance = {16.0 * 16.0};
  scene.baselineDeviation = 4.0;
  auto const scaled = uncertaintiesOf(scene);
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_NEAR(scaled[k].position, plain[k].position, 1e-12);
    EXPECT_NEAR(scaled[k].amplitude, 4.0 * plain[k].amplitude, 1e-11);
    EXPECT_NEAR(scaled[k].fwhm, plain[k].fwhm, 1e-12);
  }
}

TEST(GaussUncertainty, ShiftedEchoesAreAsSure) {
  Scene scene{.gaussians = {{30.2, 200.0, 1.6}, {34.9, 120.0, 2.0}}};
  auto const plain = uncertaintiesOf(scene);
  for (Gaussian& gaussian : scene.gaussians) {
    gaussian.position += 17.0;
  }
  auto const shifted = uncertaintiesOf(scene);
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_NEAR(shifted[k].position, plain[k].position, 1e-12);
    EXPECT_NEAR(shifted[k].amplitude, plain[k].amplitude, 1e-11);
  }
}

TEST(GaussUncertainty, SamplesAtOrBelowTheThresholdSayNothingAboutThePosition) {
  Scene scene{.gaussians = {{45.0, 200.0, 3.0}}, .samples = Samples(90, 10)};
  auto const [all, height, width] = uncertaintiesOf(scene)[0];
  scene.threshold = 10.0;
  EXPECT_TRUE(std::isnan(uncertaintiesOf(scene)[0].position));
  // The samples 43 to 47 and their neighbours are left: x exp(-x^2/18) squared, summed over -3 to 3.
  for (std::size_t i = 43; i <= 47; ++i) {
    scene.samples[i] = 100;
  }
  double sum = 0.0;
  for (double const x : {1.0, 2.0, 3.0}) {
    sum += 2.0 * x * x * std::exp(-x * x / 9.0);
  }
  auto const above = uncertaintiesOf(scene)[0];
  EXPECT_NEAR(above.position, 4.0 / 200.0 * 9.0 / std::sqrt(sum), 1e-9);
  EXPECT_NEAR(above.fwhm, width, 1e-9);
  EXPECT_NEAR(above.amplitude, height, 1e-9);
}

TEST(GaussUncertainty, AFitThatIsTooNarrowIsLessSureOfThePosition) {
  double const known = uncertaintiesOf({.gaussians = {{45.2, 200.0, 4.0}}})[0].position;
  auto const narrow = uncertaintiesOf({.gaussians = {{45.2, 200.0, 4.0}}, .positionSigma = 2.0});
  // The derivatives of Gaussians whose widths have the ratio r have the cosine (2 r / (1 + r^2))^(3/2).
  EXPECT_NEAR(narrow[0].position, known / std::pow(0.8, 1.5), 1e-5 * known);
}

TEST(GaussUncertainty, ClippedSamplesSayNothing) {
  Scene scene{.gaussians = {{45.0, 200.0, 3.0}}, .samples = Samples(90, 10)};
  scene.samples[43] = 255;
  scene.limit = 255.0;
  double sum = rootOfPi * 13.5 - 4.0 * std::exp(-4.0 / 9.0);
  // Without its mirror image, the clipped sample leaves position and height dependent on each other.
  EXPECT_GT(uncertaintiesOf(scene)[0].position, 4.0 / 200.0 * 9.0 / std::sqrt(sum));
  scene.samples[47] = 255;
  sum -= 4.0 * std::exp(-4.0 / 9.0);
  EXPECT_NEAR(uncertaintiesOf(scene)[0].position, 4.0 / 200.0 * 9.0 / std::sqrt(sum), 1e-8);
  // Height and width were fitted to clipped samples.
  EXPECT_TRUE(std::isnan(uncertaintiesOf(scene)[0].amplitude));
  EXPECT_TRUE(std::isnan(uncertaintiesOf(scene)[0].fwhm));
  scene.limit = 5.0;
  EXPECT_TRUE(std::isnan(uncertaintiesOf(scene)[0].position));
}

TEST(GaussUncertainty, WhatSamplesDoNotDetermineIsUnknown) {
  Gaussian const good{60.0, 100.0, 2.0};
  for (Gaussian const& bad : std::vector<Gaussian>{{300.0, 100.0, 2.0},
                                                   {notANumber, 100.0, 2.0},
                                                   {-infinity, 100.0, 2.0},
                                                   {20.0, notANumber, 2.0},
                                                   {20.0, 0.0, 2.0},
                                                   {20.0, 100.0, 0.0},
                                                   {20.0, 100.0, -1.0},
                                                   {20.0, 100.0, notANumber}}) {
    auto const found = uncertaintiesOf({.gaussians = {bad, good}});
    EXPECT_TRUE(std::isnan(found[0].position)) << bad.position << " " << bad.height << " " << bad.sigma;
    EXPECT_TRUE(std::isfinite(found[1].position));
  }
  auto const same = uncertaintiesOf({.gaussians = {good, good, {20.0, 100.0, 2.0}}});
  EXPECT_TRUE(std::isnan(same[0].position));
  EXPECT_TRUE(std::isnan(same[1].amplitude));
  EXPECT_TRUE(std::isfinite(same[2].fwhm));
  EXPECT_TRUE(std::isnan(uncertaintiesOf({.gaussians = {good}, .covariance = {notANumber}})[0].position));
  EXPECT_TRUE(uncertaintiesOf({.gaussians = {}}).empty());
}

TEST(GaussUncertainty, FiveSamplesDoNotDetermineSixParameters) {
  for (std::size_t const length : {0U, 1U, 2U, 3U, 4U, 5U}) {
    auto const found =
        uncertaintiesOf({.gaussians = {{0.5, 100.0, 1.5}, {2.1, 50.0, 1.5}}, .length = length});
    EXPECT_TRUE(std::isnan(found[0].position)) << length;
  }
}

TEST(GaussUncertainty, MoreThanFortyEchoesInOnePlaceAreUnknown) {
  std::vector<Gaussian> gaussians;
  for (int k = 0; k < 60; ++k) {
    gaussians.push_back({40.0 + 0.3 * k, 100.0, 8.0});
  }
  for (EchoUncertainty const& found : uncertaintiesOf({.gaussians = gaussians})) {
    EXPECT_TRUE(std::isnan(found.position));
  }
}

TEST(GaussUncertainty, ManyEchoesAsWideAsTheWaveformAreUnknown) {
  Samples const samples(90, 1000);
  Values const covariance{16.0};
  GaussUncertainty kernel;
  auto const uncertainties = [&](Values const& positions) {
    std::size_t const count = positions.size();
    Values const heights(count, 200.0);
    Values const sigmas(count, 3.0);
    Values const reaches(count, count == 1 ? 24.0 : 90.0);
    std::vector<EchoUncertainty> result(count);
    kernel.apply({samples}, {covariance, 0.0}, {positions, heights, sigmas, sigmas, reaches}, result);
    return result;
  };
  double const alone = uncertainties({45.0})[0].position;
  EXPECT_TRUE(std::isfinite(alone));
  for (EchoUncertainty const& found : uncertainties(Values(500, 45.0))) {
    EXPECT_TRUE(std::isnan(found.position));
    EXPECT_TRUE(std::isnan(found.amplitude));
  }
  EXPECT_EQ(uncertainties({45.0})[0].position, alone);
}

TEST(GaussUncertainty, TheResultDoesNotDependOnTheWaveformBefore) {
  GaussUncertainty kernel;
  Samples const samples(90, 100);
  auto const run = [&](Values const& positions) {
    Values const heights(positions.size(), 100.0);
    Values const sigmas(positions.size(), 2.0);
    Values const positionSigmas(positions.size(), 1.8);
    Values const reaches(positions.size(), 6.0);
    Values const covariance{16.0, 5.0, 1.0};
    std::vector<EchoUncertainty> result(positions.size());
    kernel.apply({samples}, {covariance, 1.0}, {positions, heights, sigmas, positionSigmas, reaches}, result);
    return result;
  };
  auto const before = run({30.2, 34.1});
  run({10.0, 14.0, 18.5, 50.0, 53.0, 80.0});
  auto const after = run({30.2, 34.1});
  EXPECT_EQ(before[0].position, after[0].position);
  EXPECT_EQ(before[1].amplitude, after[1].amplitude);
  EXPECT_EQ(before[1].fwhm, after[1].fwhm);
}

TEST(GaussUncertainty, ASecondWaveformAllocatesNothing) {
  GaussUncertainty kernel;
  Samples const samples(120, 100);
  Values const positions{20.0, 24.0, 30.0, 80.0};
  Values const heights(4, 100.0);
  Values const sigmas(4, 2.0);
  Values const positionSigmas(4, 1.8);
  Values const reaches(4, 6.0);
  Values const covariance{16.0, 5.0, 1.0};
  std::vector<EchoUncertainty> result(4);
  auto const run = [&] {
    kernel.apply({samples}, {covariance, 1.0}, {positions, heights, sigmas, positionSigmas, reaches}, result);
  };
  run();
  std::size_t const before = Testing::heapAllocations();
  run();
  EXPECT_EQ(Testing::heapAllocations(), before);
}

TEST(GaussUncertainty, HeightsAndWidthsAreThoseOfTheBaselineFit) {
  // How the fit responds to each sample, by changing one after the other.
  constexpr double change = 300.0;  // counts
  std::vector<Gaussian> const truth{{30.3, 20000.0, 1.6}, {45.6, 12000.0, 2.2}};
  auto const fitted = [&](std::size_t changed, double by) {
    Samples samples(80);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      double value = 1000.0 + (i == changed ? by : 0.0);
      for (auto const& [position, height, sigma] : truth) {
        double const off = (static_cast<double>(i) - position) / sigma;
        value += height * std::exp(-0.5 * off * off);
      }
      samples[i] = static_cast<unsigned short>(std::lround(value));
    }
    Values const positions{truth[0].position, truth[1].position};
    Values heights{truth[0].height, truth[1].height};
    Values sigmas{truth[0].sigma, truth[1].sigma};
    BaselineFit().refine(samples, 1000.0, {.positions = positions, .heights = heights, .sigmas = sigmas});
    return std::vector<Gaussian>{{0.0, heights[0], sigmas[0]}, {0.0, heights[1], sigmas[1]}};
  };
  auto const found = uncertaintiesOf({.gaussians = truth, .length = 80, .reachInSigmas = 3.0});
  for (std::size_t k = 0; k < truth.size(); ++k) {
    double height = 0.0;
    double sigma = 0.0;
    for (std::size_t i = 0; i < 80; ++i) {
      Gaussian const more = fitted(i, change)[k];
      Gaussian const less = fitted(i, -change)[k];
      height += std::pow((more.height - less.height) / (2.0 * change), 2.0);
      sigma += std::pow((more.sigma - less.sigma) / (2.0 * change), 2.0);
    }
    EXPECT_NEAR(found[k].amplitude, 4.0 * std::sqrt(height), 0.01 * found[k].amplitude);
    EXPECT_NEAR(found[k].fwhm, fwhmPerSigma * 4.0 * std::sqrt(sigma), 0.02 * found[k].fwhm);
  }
}

}  // namespace
}  // namespace FullWaveform
