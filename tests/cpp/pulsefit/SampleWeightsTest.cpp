#include <fullwaveform/pulsefit/SampleWeights.h>

#include <array>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

TEST(SampleWeights, QuietWithoutBands) {
  std::vector<double> values(3);
  SampleWeights weights;
  weights.set(4.0, {}, values);
  EXPECT_EQ(values, (std::vector<double>{0.25, 0.25, 0.25}));
  EXPECT_EQ(weights.sum(), 0.75);
  EXPECT_EQ(weights.logarithms(), 0.0);
  ASSERT_EQ(weights.segments().size(), 1U);
  EXPECT_EQ(weights.segments()[0].end, 3U);
}

TEST(SampleWeights, OverlappingBandsAdd) {
  std::array<VarianceBand, 3> const bands{{{1, 4, 1.0}, {3, 6, 2.0}, {0, 0, 9.0}}};
  std::vector<double> values(7);
  SampleWeights weights;
  weights.set(1.0, bands, values);
  EXPECT_EQ(values, (std::vector<double>{1.0, 0.5, 0.5, 0.25, 1.0 / 3.0, 1.0 / 3.0, 1.0}));
  EXPECT_NEAR(weights.sum(), 3.25 + 2.0 / 3.0, 1e-15);
  EXPECT_NEAR(weights.logarithms(), std::log(2.0 * 2.0 * 4.0 * 3.0 * 3.0), 1e-14);
  ASSERT_EQ(weights.segments().size(), 5U);
  EXPECT_EQ(weights.segments()[2].first, 3U);
  EXPECT_EQ(weights.segments()[2].end, 4U);
  EXPECT_EQ(weights.segments()[2].weight, 0.25);
}

}  // namespace
}  // namespace FullWaveform
