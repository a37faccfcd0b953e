#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/fitting/SmoothedValue.h>

namespace FullWaveform {
namespace {

/// 2 + 3 x - x^2 at x = 0 to 7.
std::vector<double> const parabola{2.0, 4.0, 4.0, 2.0, -2.0, -8.0, -16.0, -26.0};

TEST(SmoothedAt, AParabolaIsReproducedEverywhere) {
  for (double const x : {0.0, 0.6, 1.5, 2.5, 3.25, 5.75, 7.0}) {
    EXPECT_NEAR(smoothedAt(parabola, x), 2.0 + 3.0 * x - x * x, 1e-12) << x;
  }
}

TEST(SmoothedAt, OutsideTheValuesTheNearestEndIsRead) {
  EXPECT_DOUBLE_EQ(smoothedAt(parabola, -3.0), smoothedAt(parabola, 0.0));
  EXPECT_DOUBLE_EQ(smoothedAt(parabola, 1e300), smoothedAt(parabola, 7.0));
}

TEST(SmoothedAt, OneHighValueIsSpreadByTheWeightsOfSavitzkyAndGolay) {
  std::vector<double> const values{0.0, 0.0, 35.0, 0.0, 0.0};
  EXPECT_NEAR(smoothedAt(values, 2.0), 17.0, 1e-12);
  // Half a sample further: the curvature of the parabola is -2 * 35 / 14.
  EXPECT_NEAR(smoothedAt(values, 2.5), 17.0 - 5.0 * 0.25, 1e-12);
}

TEST(SmoothedAt, FewerThanFiveValuesGiveZero) {
  EXPECT_EQ(smoothedAt(std::vector<double>{7.0, 7.0, 7.0, 7.0}, 1.0), 0.0);
}

}  // namespace
}  // namespace FullWaveform
