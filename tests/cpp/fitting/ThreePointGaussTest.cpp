#include <fullwaveform/fitting/ThreePointGauss.h>

#include <cmath>
#include <limits>
#include <span>
#include <string>

#include <gtest/gtest.h>

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

TEST(ThreePointGauss, ScaleMovesTheAmplitudeOnly) {
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

TEST(ThreePointGauss, FlatTripleIsNotFinite) {
  ThreePointGauss const gauss = gaussThroughThreeSamples(8.0, 8.0, 8.0);
  EXPECT_FALSE(std::isfinite(gauss.vertex));
  EXPECT_FALSE(std::isfinite(gauss.std));
}

TEST(ThreePointGauss, HollowTripleHasNoWidth) {
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

TEST(ThreePointGaussPeak, NeighboursOutsideTheRecordAreItsNearestSample) {
  // At the front 8, 8, 4: vertex half a sample before; at the end 4, 8, 8: half a sample behind.
  EXPECT_EQ(fitted({8, 4, 1}, 0.0).idx, -0.5);
  EXPECT_EQ(fitted({1, 4, 8}, 2.0).idx, 2.5);
}

TEST(ThreePointGaussPeak, NothingOutsideTheRecordIsRead) {
  Samples const samples{100, 90, 120};
  double const notANumber = std::numeric_limits<double>::quiet_NaN();
  for (double const idx : {-1e300, -5.0, 0.0, 2.0, 3.0, 1e300, notANumber}) {
    Testing::withGuardedCopies(samples, [&](unsigned short const* record) {
      Peak peak = rawAt(idx);
      fitThreePointGauss(std::span(record, samples.size()), {}, peak);
      EXPECT_EQ(peak.type, GAUSS_3POINTS);
    });
  }
}

TEST(ThreePointGaussPeak, EmptyRecordLeavesTheEchoAlone) {
  Peak const peak = fitted({}, 1.0);
  EXPECT_EQ(peak.type, RAW);
  EXPECT_EQ(peak.idx, 1.0);
}

}  // namespace
}  // namespace FullWaveform
