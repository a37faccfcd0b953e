#include <fullwaveform/pulsefit/ThreePointUncertainty.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <numbers>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/ThreePointGauss.h>
#include <fullwaveform/pulsefit/ThreePointBatch.h>

namespace FullWaveform {
namespace {

using Samples = std::vector<unsigned short>;
using Values = std::vector<double>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

EchoUncertainty uncertaintyOf(Samples const& samples, double position, Values const& covariance,
                              double baselineDeviation = 0.0,
                              double limit = std::numeric_limits<double>::infinity()) {
  Values const positions{position};
  Values const sigmas{1.0};
  std::vector<EchoUncertainty> result(1);
  ThreePointUncertainty uncertainty;
  uncertainty.add({.samples = samples, .limit = limit}, {covariance, baselineDeviation}, {positions, sigmas},
                  result);
  uncertainty.finish();
  return result[0];
}

// Noise of a hundredth of a count: the three samples determine the curvature by far better than others.
Values const littleNoise{1e-4};

TEST(ThreePointUncertainty, ASymmetricMaximum) {
  EchoUncertainty const found = uncertaintyOf({10, 100, 200, 100, 10}, 2.0, littleNoise, 0.03);
  // The curvature is 2 ln(1/2) = -1.386294, the width 0.849322 samples.
  EXPECT_NEAR(found.position, 0.01 * std::sqrt(2.0) * 0.5 / (1.386294 * 100.0), 1e-9);
  // The height is that of the middle sample.
  EXPECT_NEAR(found.amplitude, std::hypot(0.01, 0.03), 1e-7);
  double const ofCurvature = std::sqrt(2.0 / (100.0 * 100.0) + 4.0 / (200.0 * 200.0));
  EXPECT_NEAR(found.fwhm, 2.3548200 * 0.5 * std::pow(0.849322, 3.0) * ofCurvature * 0.01, 1e-9);
}

TEST(ThreePointUncertainty, TwoEqualHighestSamples) {
  EchoUncertainty const found = uncertaintyOf({10, 100, 200, 200, 10}, 2.5, littleNoise);
  // The curvature is ln(1/2) = -0.693147; the position depends on the difference of the equal samples.
  EXPECT_NEAR(found.position, 0.01 * std::sqrt(2.0) / (200.0 * 0.693147), 1e-9);
  // Lagrange's weights at 1/2 are -1/8, 3/4 and 3/8, the height is 200 * 2^(1/8) = 218.1015.
  EXPECT_NEAR(found.amplitude,
              0.01 * std::sqrt(std::pow(2.181015 / 8.0, 2.0) + std::pow(0.75 * 1.090508, 2.0) +
                               std::pow(0.375 * 1.090508, 2.0)),
              1e-7);
}

TEST(ThreePointUncertainty, ItIsTheResponseOfTheFit) {
  Samples const samples{40, 130, 520, 700, 410, 90, 35};
  auto const fitted = [](double left, double centre, double right) {
    return gaussThroughThreeSamples(left, centre, right);
  };
  Values position;
  Values height;
  Values width;
  for (std::size_t i = 0; i < 3; ++i) {
    double values[2][3] = {{520.0, 700.0, 410.0}, {520.0, 700.0, 410.0}};
    values[0][i] += 10.0;
    values[1][i] -= 10.0;
    ThreePointGauss const more = fitted(values[0][0], values[0][1], values[0][2]);
    ThreePointGauss const less = fitted(values[1][0], values[1][1], values[1][2]);
    position.push_back((static_cast<double>(more.vertex) - static_cast<double>(less.vertex)) / 20.0);
    height.push_back((static_cast<double>(more.amplitude) - static_cast<double>(less.amplitude)) / 20.0);
    width.push_back((static_cast<double>(more.std) - static_cast<double>(less.std)) / 20.0);
  }
  // Neighbours with a correlation of 1/2.
  auto const deviation = [](Values const& w) {
    return std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2] + w[0] * w[1] + w[1] * w[2]);
  };
  double const at = 2.0 + static_cast<double>(fitted(520.0, 700.0, 410.0).vertex);
  EchoUncertainty const found = uncertaintyOf(samples, at, {1.0, 0.5, 0.0});
  EXPECT_NEAR(found.position, deviation(position), 0.01 * found.position);
  EXPECT_NEAR(found.amplitude, deviation(height), 0.01 * found.amplitude);
  EXPECT_NEAR(found.fwhm, 2.35482 * deviation(width), 0.01 * found.fwhm);
}

TEST(ThreePointUncertainty, WhereThreeSamplesShowNoWidthItsNeighboursDo) {
  // A wide pulse on whose top the noise has made a sharp maximum: around it, the curvature is that of a
  // standard deviation of 4 samples.
  Samples samples;
  for (int i = -8; i <= 8; ++i) {
    samples.push_back(static_cast<unsigned short>(std::lround(400.0 * std::exp(-i * i / 32.0))));
  }
  auto const sure = [&](double noise) {
    return uncertaintyOf(samples, 8.0, {noise * noise}).position / noise;
  };
  double const plain = sure(40.0);
  // 1 / (sqrt(2) 388 / 16), where 388 counts are the samples next to the maximum.
  EXPECT_NEAR(plain, 16.0 / (std::sqrt(2.0) * 388.0), 1e-3 * plain);
  samples[8] = 440;
  // The three samples alone have four times the curvature: ln(388/440) instead of ln(388/400).
  EXPECT_GT(sure(40.0), 0.7 * plain);
  EXPECT_LT(sure(0.1), 0.3 * plain);
}

TEST(ThreePointUncertainty, AnOwnBaselineAddsTheNoiseOfItsQuietSamples) {
  Samples const samples{10, 10, 10, 100, 200, 100, 10, 10, 10, 10, 10};
  // Of 11 samples, seven belong to an echo with a standard deviation of 1 sample.
  double const known = uncertaintyOf(samples, 4.0, {16.0}, 2.0).amplitude;
  EXPECT_NEAR(uncertaintyOf(samples, 4.0, {16.0}, notANumber).amplitude, known, 1e-12);
  // Where neighbours have the covariance 8, the mean of four samples has the variance (16 + 2 * 8) / 4.
  double const correlated = uncertaintyOf(samples, 4.0, {16.0, 8.0}, std::sqrt(8.0)).amplitude;
  EXPECT_NEAR(uncertaintyOf(samples, 4.0, {16.0, 8.0}, notANumber).amplitude, correlated, 1e-12);
}

TEST(ThreePointUncertainty, OtherSamplesThanThoseOfTheFitGiveNothing) {
  Samples const samples{10, 100, 200, 100, 10};
  EXPECT_TRUE(std::isnan(uncertaintyOf(samples, 2.2, {16.0}).position));         // another position
  EXPECT_TRUE(std::isnan(uncertaintyOf({100, 50, 100}, 1.0, {16.0}).position));  // a minimum
  EXPECT_TRUE(std::isnan(uncertaintyOf({100, 100, 100}, 1.0, {16.0}).position));
  for (double const position : {0.2, 4.0, 17.0, -3.0, notANumber}) {
    EXPECT_TRUE(std::isnan(uncertaintyOf(samples, position, {16.0}).position)) << position;
  }
  EXPECT_TRUE(std::isnan(uncertaintyOf({}, 0.0, {16.0}).position));
  EXPECT_TRUE(std::isnan(uncertaintyOf(samples, 2.0, {16.0}, 0.0, 200.0).position));  // clipped
  EXPECT_TRUE(std::isfinite(uncertaintyOf(samples, 2.0, {16.0}, 0.0, 201.0).position));
}

TEST(ThreePointUncertainty, ASampleOfZeroIsReadAsOne) {
  EXPECT_EQ(uncertaintyOf({0, 20, 0}, 1.0, {1.0}).position, uncertaintyOf({1, 20, 1}, 1.0, {1.0}).position);
}

TEST(ThreePointUncertainty, AnEchoDoesNotDependOnTheOthersOfItsBatch) {
  // 150 waveforms: more than two batches, the last one incomplete. Every third echo has no middle sample.
  std::vector<Samples> waveforms;
  std::vector<Values> positions;
  for (unsigned short i = 0; i < 150; ++i) {
    unsigned short const side = 20 + i;
    waveforms.push_back({10, side, 200, side, 10, 30, 300, 300, 30});
    positions.push_back({2.0, i % 3 == 0 ? 8.0 : 6.5});
  }
  Values const sigmas{1.0, 1.0};
  std::vector<EchoUncertainty> together(2 * waveforms.size());
  ThreePointUncertainty uncertainty;
  for (std::size_t i = 0; i < waveforms.size(); ++i) {
    uncertainty.add({.samples = waveforms[i]}, {littleNoise, 0.0}, {positions[i], sigmas},
                    std::span(together).subspan(2 * i, 2));
  }
  uncertainty.finish();
  for (std::size_t i = 0; i < waveforms.size(); ++i) {
    for (std::size_t k = 0; k < 2; ++k) {
      EchoUncertainty const alone = uncertaintyOf(waveforms[i], positions[i][k], littleNoise);
      EchoUncertainty const& found = together[2 * i + k];
      EXPECT_EQ(std::isnan(found.position), positions[i][k] == 8.0) << i;
      if (!std::isnan(found.position)) {
        EXPECT_EQ(found.position, alone.position) << i;
        EXPECT_EQ(found.amplitude, alone.amplitude) << i;
        EXPECT_EQ(found.fwhm, alone.fwhm) << i;
      }
    }
  }
}

TEST(ThreePointUncertainty, AllInstructionSetsGiveTheSameDigits) {
  ThreePointBatch batch;
  batch.count = ThreePointBatch::capacity;
  for (std::size_t lane = 0; lane < batch.count; ++lane) {
    for (std::size_t i = 0; i < ThreePointBatch::samplesPerEcho; ++i) {
      double const x = static_cast<double>(i) - 3.0 - static_cast<double>(lane) / 200.0;
      batch.samples[i][lane] = std::round(1000.0 * std::exp(-0.1 * x * x));
      batch.logarithms[i][lane] = std::log(batch.samples[i][lane]);
    }
    batch.offsets[lane] = static_cast<double>(lane) / 200.0;
    batch.covariances[0][lane] = 9.0;
    batch.covariances[1][lane] = 2.0;
  }
  ThreePointVariances narrow;
  ThreePointVariances wide;
  threePointKernel(InstructionSet::Baseline)(batch, narrow);
  threePointKernel(widestInstructionSet())(batch, wide);
  EXPECT_TRUE(std::isfinite(narrow.position[0]));
  EXPECT_EQ(0, std::memcmp(&narrow, &wide, sizeof narrow));
}

}  // namespace
}  // namespace FullWaveform
