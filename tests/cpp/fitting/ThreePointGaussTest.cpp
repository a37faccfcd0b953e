#include <fullwaveform/fitting/ThreePointGauss.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <Eigen/LU>

#include "support/TestWaveforms.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

using Testing::Samples;
namespace Tolerance = Testing::Tolerance;

Peak rawAt(double idx) {
  return {77.0, idx, 3.5, RAW, AFTERPULS, 9.0, 4, 2.5F};
}

Peak fitted(Samples const& samples, double idx, ZeroCrossing::SampleAccessor const& accessor = {}) {
  Peak peak = rawAt(idx);
  fitThreePointGauss(samples, accessor, peak);
  return peak;
}

// Logarithms 2 ln 2, 3 ln 2, 2 ln 2: the curvature is -ln 2, the width sqrt(0.5 / ln 2).
TEST(ThreePointGauss, SymmetricTripleHasItsVertexInTheMiddle) {
  ThreePointGauss const gauss = gaussThroughThreeSamples(4.0, 8.0, 4.0);
  EXPECT_EQ(gauss.vertex, 1.0F);
  EXPECT_NEAR(gauss.amplitude, 8.0, 8.0 * Tolerance::fitAmplitudeRelative);
  EXPECT_NEAR(gauss.std, 0.8493218, Tolerance::fitSamples);
}

// Logarithms 2, 3, 3 times ln 2: c1 = 1.5 ln 2, c2 = -0.5 ln 2, so the top is 4 x 2^1.125 = 8.7240619.
TEST(ThreePointGauss, EqualPairHasItsVertexBetween) {
  ThreePointGauss const gauss = gaussThroughThreeSamples(4.0, 8.0, 8.0);
  EXPECT_EQ(gauss.vertex, 1.5F);
  EXPECT_NEAR(gauss.amplitude, 8.7240619, 8.7 * Tolerance::fitAmplitudeRelative);
  EXPECT_NEAR(gauss.std, 1.2011224, Tolerance::fitSamples);  // sqrt(1 / ln 2)
  EXPECT_EQ(gaussThroughThreeSamples(8.0, 8.0, 4.0).vertex, 0.5F);
}

TEST(ThreePointGauss, RecoversTheGaussianThatWasSampled) {
  for (double const width : {0.6, 0.85, 1.4, 2.0, 3.0}) {
    for (double const amplitude : {15.0, 400.0, 3000.0}) {
      for (double vertex = 0.5; vertex <= 1.5; vertex += 0.125) {
        auto const at = [&](double x) {
          return amplitude * std::exp(-(x - vertex) * (x - vertex) / (2.0 * width * width));
        };
        ThreePointGauss const gauss = gaussThroughThreeSamples(at(0.0), at(1.0), at(2.0));
        EXPECT_NEAR(gauss.vertex, vertex, Tolerance::fitSamples);
        EXPECT_NEAR(gauss.std, width, Tolerance::fitSamples);
        EXPECT_NEAR(gauss.amplitude, amplitude, amplitude * Tolerance::fitAmplitudeRelative);
      }
    }
  }
}

TEST(ThreePointGauss, ScaleChangesTheAmplitudeOnly) {
  ThreePointGauss const small = gaussThroughThreeSamples(100.0, 300.0, 200.0);
  ThreePointGauss const large = gaussThroughThreeSamples(1000.0, 3000.0, 2000.0);
  EXPECT_NEAR(large.vertex, small.vertex, Tolerance::fitSamples);
  EXPECT_NEAR(large.std, small.std, Tolerance::fitSamples);
  EXPECT_NEAR(large.amplitude, 10.0F * small.amplitude, large.amplitude * Tolerance::fitAmplitudeRelative);
}

TEST(ThreePointGauss, MirroredTripleHasTheMirroredVertex) {
  ThreePointGauss const left = gaussThroughThreeSamples(250.0, 300.0, 100.0);
  ThreePointGauss const right = gaussThroughThreeSamples(100.0, 300.0, 250.0);
  EXPECT_NEAR(left.vertex + right.vertex, 2.0, Tolerance::fitSamples);
  EXPECT_NEAR(left.std, right.std, Tolerance::fitSamples);
}

TEST(ThreePointGauss, FlatTripleIsNan) {
  ThreePointGauss const gauss = gaussThroughThreeSamples(8.0, 8.0, 8.0);
  EXPECT_TRUE(std::isnan(gauss.vertex));
  EXPECT_TRUE(std::isnan(gauss.std));
  EXPECT_TRUE(std::isnan(gauss.amplitude));
}

/// The Gaussian from the parabola that Eigen's LU factorisation of a dynamic-size matrix finds.
ThreePointGauss gaussOfEigen(double left, double centre, double right) {
  Eigen::MatrixXf design(3, 3);
  design << 1.0F, 0.0F, 0.0F, 1.0F, 1.0F, 1.0F, 1.0F, 2.0F, 4.0F;
  Eigen::VectorXf logarithms(3);
  logarithms << static_cast<float>(std::log(left)), static_cast<float>(std::log(centre)),
      static_cast<float>(std::log(right));
  Eigen::VectorXf const c = design.partialPivLu().solve(logarithms);
  float const top = c[0] - 0.25F * c[1] * c[1] / c[2];
  return {static_cast<float>(std::exp(static_cast<double>(top))), -0.5F * c[1] / c[2],
          std::sqrt(-0.5F / c[2])};
}

bool haveSameBits(float left, float right) {
  return std::bit_cast<std::uint32_t>(left) == std::bit_cast<std::uint32_t>(right) ||
         (std::isnan(left) && std::isnan(right));
}

void expectBitsOfEigen(double left, double centre, double right) {
  ThreePointGauss const found = gaussThroughThreeSamples(left, centre, right);
  ThreePointGauss const expected = gaussOfEigen(left, centre, right);
  EXPECT_TRUE(haveSameBits(found.amplitude, expected.amplitude) &&
              haveSameBits(found.vertex, expected.vertex) && haveSameBits(found.std, expected.std))
      << left << ' ' << centre << ' ' << right;
}

TEST(ThreePointGauss, AgreesBitwiseWithTheDynamicSizeLuOfEigen) {
  std::vector<double> const levels{1.0,  2.0,   3.0,   4.0,   7.0,   8.0,    9.0,    16.0,   20.0,   50.0,
                                   64.0, 100.0, 127.0, 254.0, 255.0, 1000.0, 4095.0, 4096.0, 65535.0};
  for (double const left : levels) {
    for (double const centre : levels) {
      for (double const right : levels) {
        expectBitsOfEigen(left, centre, right);
      }
    }
  }
  std::mt19937 rng(3);
  for (int i = 0; i < 50000; ++i) {
    // Up to 2, 4, ... 65536 counts, so that equal samples are frequent.
    unsigned const range = 2U << (static_cast<unsigned>(i) % 16U);
    auto const sample = [&] { return static_cast<double>(1U + rng() % range); };
    double const left = sample();
    double const centre = sample();
    expectBitsOfEigen(left, centre, sample());
  }
}

// From NumPy, with logarithms and exponential in double precision, rounded to single precision. In single
// precision the logarithm of 1579 and the exponential for 22, 60, 13 differ in the last digit.
TEST(ThreePointGauss, LogarithmAndExponentialAreOfDoublePrecision) {
  ThreePointGauss const gauss = gaussThroughThreeSamples(1500.0, 1579.0, 1540.0);
  EXPECT_EQ(gauss.vertex, 1.172376F);
  EXPECT_EQ(gauss.std, 3.6193802F);
  EXPECT_EQ(gaussThroughThreeSamples(22.0, 60.0, 13.0).amplitude, 60.825222F);
}

TEST(ThreePointGauss, ConcaveUpTripleHasNoWidth) {
  ThreePointGauss const gauss = gaussThroughThreeSamples(8.0, 4.0, 8.0);
  EXPECT_TRUE(std::isnan(gauss.std));
  EXPECT_EQ(gauss.vertex, 1.0F);
  EXPECT_NEAR(gauss.amplitude, 4.0, 4.0 * Tolerance::fitAmplitudeRelative);
}

TEST(ThreePointGaussPeak, WritesFourFieldsAndKeepsTheOthers) {
  Peak const peak = fitted({1, 1, 4, 8, 4, 1}, 3.0);
  EXPECT_EQ(peak.idx, 3.0);
  EXPECT_NEAR(peak.amplitude, 8.0, 8.0 * Tolerance::fitAmplitudeRelative);
  EXPECT_NEAR(peak.std, 0.8493218, Tolerance::fitSamples);
  EXPECT_EQ(peak.type, GAUSS_3POINTS);
  EXPECT_EQ(peak.quality, AFTERPULS);
  EXPECT_EQ(peak.time, 3.5);
  EXPECT_EQ(peak.classification, 4);
  EXPECT_EQ(peak.reflectance, 2.5F);
}

TEST(ThreePointGaussPeak, HalfWayVertexIsExact) {
  EXPECT_EQ(fitted({1, 4, 8, 8, 1}, 2.0).idx, 2.5);
}

TEST(ThreePointGaussPeak, PositionIsTruncatedToItsSample) {
  EXPECT_EQ(fitted({1, 4, 8, 4, 1}, 2.999).idx, 2.0);
  EXPECT_EQ(fitted({8, 4, 1}, -0.9).idx, -0.5);
}

TEST(ThreePointGaussPeak, ResultsAreOfSinglePrecision) {
  Peak const peak = fitted({10, 313, 377, 251, 1}, 2.0);
  EXPECT_EQ(peak.idx, static_cast<double>(static_cast<float>(peak.idx)));
  EXPECT_EQ(peak.std, static_cast<double>(static_cast<float>(peak.std)));
}

TEST(ThreePointGaussPeak, SamplesAreReadThroughTheAccessor) {
  Samples const samples{9, 9, 9, 9, 9};
  std::string indices;
  auto const accessor = [&](unsigned short const& sample, double index) -> unsigned short {
    EXPECT_EQ(&sample, &samples[static_cast<std::size_t>(index)]);
    indices += std::to_string(static_cast<int>(index));
    return index == 2.0 ? 8 : 4;
  };
  EXPECT_EQ(fitted(samples, 2.0, accessor).idx, 2.0);
  EXPECT_EQ(indices, "123");
}

TEST(ThreePointGaussPeak, NeighboursOutsideTheWaveformAreItsNearestSample) {
  // First sample, 8, 8, 4: vertex half a sample before it. Last sample, 4, 8, 8: half a sample after it.
  EXPECT_EQ(fitted({8, 4, 1}, 0.0).idx, -0.5);
  EXPECT_EQ(fitted({1, 4, 8}, 2.0).idx, 2.5);
}

TEST(ThreePointGaussPeak, NoSampleOutsideTheWaveformIsRead) {
  Samples const samples{100, 90, 120};
  double const nan = std::numeric_limits<double>::quiet_NaN();
  for (double const idx : {-1e300, -5.0, 0.0, 2.0, 3.0, 1e300, nan}) {
    Testing::withGuardedCopies(samples, [&](unsigned short const* guarded) {
      Peak peak = rawAt(idx);
      fitThreePointGauss(std::span(guarded, samples.size()), {}, peak);
      EXPECT_EQ(peak.type, GAUSS_3POINTS);
    });
  }
}

TEST(ThreePointGaussPeak, EmptyWaveformLeavesThePeakUnchanged) {
  Peak const peak = fitted({}, 1.0);
  EXPECT_EQ(peak.type, RAW);
  EXPECT_EQ(peak.idx, 1.0);
}

}  // namespace
}  // namespace FullWaveform
