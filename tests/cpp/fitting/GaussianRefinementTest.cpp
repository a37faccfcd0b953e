#include <fullwaveform/fitting/GaussianRefinement.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "nist/NistGauss.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

namespace Tolerance = Testing::Tolerance;
using Testing::NistGauss;
using Values = std::vector<double>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

/// Height, position and width of an echo.
using Echo = std::array<double, 3>;

Values signalOf(int first, std::size_t count, std::vector<Echo> const& echoes) {
  Values signal(count, 0.0);
  for (std::size_t i = 0; i < count; ++i) {
    for (auto const& [height, position, width] : echoes) {
      double const widths = (first + static_cast<double>(i) - position) / width;
      signal[i] += height * std::exp(-0.5 * widths * widths);
    }
  }
  return signal;
}

/// NIST gives the width at which a Gaussian has fallen to 1/e.
Values twoGaussians(std::array<double, 8> const& b) {
  double const root2 = std::sqrt(2.0);
  return {b[2], b[3], b[4] / root2, b[5], b[6], b[7] / root2};
}

/// The data without the certified baseline.
Values signalOf(NistGauss const& set) {
  Values signal(set.y.begin(), set.y.end());
  for (std::size_t i = 0; i < signal.size(); ++i) {
    signal[i] -= set.certified[0] * std::exp(-set.certified[1] * static_cast<double>(i + 1));
  }
  return signal;
}

void refineRepeatedly(Values const& signal, int first, Values& parameters) {
  for (int i = 0; i < 30; ++i) {
    GaussianRefinement().refine(signal, first, parameters);
  }
}

TEST(GaussianRefinement, OneEchoIsFoundFromARoughStart) {
  Values parameters{700.0, 13.0, 3.0};
  int const evaluations = GaussianRefinement().refine(signalOf(5, 20, {{1000.0, 14.3, 2.2}}), 5, parameters);
  EXPECT_GT(evaluations, 1);
  EXPECT_NEAR(parameters[0], 1000.0, 1000.0 * Tolerance::refinedAmplitudeRelative);
  EXPECT_NEAR(parameters[1], 14.3, Tolerance::refinedSamples);
  EXPECT_NEAR(parameters[2], 2.2, Tolerance::refinedSamples);
}

TEST(GaussianRefinement, OverlappingEchoesAreSeparated) {
  Values parameters{800.0, 19.0, 2.5, 400.0, 25.0, 2.0};
  GaussianRefinement().refine(signalOf(0, 45, {{1000.0, 19.4, 2.0}, {300.0, 24.2, 1.6}}), 0, parameters);
  Values const expected{1000.0, 19.4, 2.0, 300.0, 24.2, 1.6};
  for (std::size_t p : {1U, 2U, 4U, 5U}) {
    EXPECT_NEAR(parameters[p], expected[p], Tolerance::refinedSamples);
  }
  EXPECT_NEAR(parameters[0], 1000.0, 1000.0 * Tolerance::refinedAmplitudeRelative);
  EXPECT_NEAR(parameters[3], 300.0, 300.0 * Tolerance::refinedAmplitudeRelative);
}

TEST(GaussianRefinement, ExactStartIsKept) {
  Values parameters{1000.0, 14.3, 2.2};
  Values const start = parameters;
  GaussianRefinement().refine(signalOf(5, 20, {{1000.0, 14.3, 2.2}}), 5, parameters);
  for (std::size_t p = 0; p < start.size(); ++p) {
    EXPECT_NEAR(parameters[p], start[p], 1e-9);
  }
}

TEST(GaussianRefinement, SignsOfTheParametersAreKept) {
  Values parameters{-1000.0, -14.3, 2.2};
  GaussianRefinement().refine(signalOf(5, 20, {{1000.0, 14.3, 2.2}}), 5, parameters);
  EXPECT_NEAR(parameters[0], -1000.0, 1e-9);
  EXPECT_NEAR(parameters[1], -14.3, 1e-9);
}

TEST(GaussianRefinement, FewerSamplesThanParametersLeaveTheStartUnchanged) {
  Values one{7.0, 1.0, 2.0};
  EXPECT_EQ(GaussianRefinement().refine(Values{5.0, 9.0}, 0, one), 0);
  EXPECT_EQ(one, (Values{7.0, 1.0, 2.0}));
  Values two{7.0, 1.0, 2.0, 3.0, 4.0, 2.0};
  EXPECT_EQ(GaussianRefinement().refine(Values{5.0, 9.0, 8.0, 7.0, 6.0}, 0, two), 0);
  EXPECT_EQ(two, (Values{7.0, 1.0, 2.0, 3.0, 4.0, 2.0}));
}

TEST(GaussianRefinement, AsManySamplesAsParametersAreEnough) {
  Values parameters{7.0, 1.2, 1.0};
  EXPECT_GT(GaussianRefinement().refine(Values{4.0, 8.0, 4.0}, 0, parameters), 1);
  EXPECT_NEAR(parameters[0], 8.0, 8.0 * Tolerance::refinedAmplitudeRelative);
  EXPECT_NEAR(parameters[1], 1.0, Tolerance::refinedSamples);
  EXPECT_NEAR(parameters[2], 0.8493218, Tolerance::refinedSamples);  // 1 / sqrt(2 ln 2)
}

TEST(GaussianRefinement, NonFiniteStartIsLeftUnchanged) {
  Values const signal = signalOf(5, 20, {{1000.0, 14.3, 2.2}});
  for (double const nonFinite : {nan, infinity, -infinity}) {
    for (std::size_t p = 0; p < 6; ++p) {
      Values const start{700.0, 13.0, 3.0, 100.0, 17.0, 2.0};
      Values parameters = start;
      parameters[p] = nonFinite;
      EXPECT_EQ(GaussianRefinement().refine(signal, 5, parameters), 0);
      for (std::size_t q = 0; q < 6; ++q) {
        EXPECT_TRUE(q == p || parameters[q] == start[q]);
      }
      EXPECT_TRUE(parameters[p] == nonFinite || std::isnan(nonFinite));
    }
  }
}

TEST(GaussianRefinement, NoParametersOrNoSamplesAreAccepted) {
  Values none;
  EXPECT_EQ(GaussianRefinement().refine(Values{1.0, 2.0, 3.0}, 0, none), 0);
  EXPECT_EQ(GaussianRefinement().refine(Values(), 0, none), 0);
  Values one{7.0, 1.0, 2.0};
  EXPECT_EQ(GaussianRefinement().refine(Values(), 0, one), 0);
}

TEST(GaussianRefinement, WidthOfZeroIsLeftUnchanged) {
  // At the position the Gaussian is 0/0: no step is better than the start.
  Values parameters{1000.0, 14.0, 0.0};
  GaussianRefinement().refine(signalOf(5, 20, {{1000.0, 14.3, 2.2}}), 5, parameters);
  EXPECT_EQ(parameters, (Values{1000.0, 14.0, 0.0}));
}

TEST(GaussianRefinement, EndsAfterTwentyEvaluations) {
  // A constant is a Gaussian of infinite width: every step widens it, and the fit never converges.
  Values parameters{1000.0, 10.0, 2.0};
  EXPECT_EQ(GaussianRefinement().refine(Values(20, 1000.0), 0, parameters), 20);
  EXPECT_GT(parameters[2], 1000.0);
}

TEST(GaussianRefinement, FirstStepMayBeLong) {
  // Only the height is wrong, by a factor of 100, and the sum is linear in it: one step corrects it, if the
  // bound of the first step is large enough, and the second has no effect.
  Values parameters{10.0, 14.3, 2.2};
  EXPECT_LE(GaussianRefinement().refine(signalOf(5, 20, {{1000.0, 14.3, 2.2}}), 5, parameters), 3);
  EXPECT_NEAR(parameters[0], 1000.0, 1000.0 * Tolerance::refinedAmplitudeRelative);
}

TEST(GaussianRefinement, CertifiedParametersAreReached) {
  for (NistGauss const& set : Testing::nistGauss) {
    Values const signal = signalOf(set);
    Values const expected = twoGaussians(set.certified);
    Values const deviation = twoGaussians(set.standardDeviation);
    for (auto const& start : {set.start1, set.start2}) {
      Values parameters = twoGaussians(start);
      EXPECT_LT(GaussianRefinement().refine(signal, 1, parameters), 20) << set.name;
      for (std::size_t p = 0; p < expected.size(); ++p) {
        EXPECT_NEAR(parameters[p], expected[p], deviation[p] * Tolerance::refinedStandardDeviations)
            << set.name << " parameter " << p;
      }
    }
  }
}

TEST(GaussianRefinement, RepeatedRefinementReachesTheCertifiedDigits) {
  for (NistGauss const& set : Testing::nistGauss) {
    Values parameters = twoGaussians(set.start2);
    refineRepeatedly(signalOf(set), 1, parameters);
    Values const expected = twoGaussians(set.certified);
    for (std::size_t p = 0; p < expected.size(); ++p) {
      EXPECT_NEAR(parameters[p] / expected[p], 1.0, Tolerance::repeatedRelative)
          << set.name << " parameter " << p;
    }
  }
}

TEST(GaussianRefinement, RepeatedRefinementReachesTheMinimumOfSciPy) {
  // Two Gaussians for four echoes, so that a large residual is left; the minimum is that of SciPy's
  // least_squares (trust region, tolerances of 1e-14).
  Values const signal =
      signalOf(1, 38, {{600.0, 0.8, 1.5}, {1500.0, 6.0, 1.8}, {1200.0, 25.0, 2.0}, {200.0, 30.5, 1.5}});
  Values parameters{1500.0, 6.0, 2.0, 1200.0, 25.0, 2.0};
  refineRepeatedly(signal, 1, parameters);
  Values const expected{1373.891497942, 5.618461311, 2.351318967, 1160.346262112, 25.122352687, 2.203724796};
  for (std::size_t p = 0; p < expected.size(); ++p) {
    EXPECT_NEAR(parameters[p] / expected[p], 1.0, Tolerance::repeatedRelative) << p;
  }
}

}  // namespace
}  // namespace FullWaveform
