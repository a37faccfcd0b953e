#include <cmath>
#include <limits>
#include <vector>

#include <fullwaveform/fitting/leastsquares/Norm.h>
#include <gtest/gtest.h>

#include <Eigen/Core>

namespace FullWaveform {
namespace {

double normOf(std::vector<double> const& values) {
  return norm(values);
}

TEST(Norm, SquaresNeitherOverflowNorUnderflow) {
  EXPECT_DOUBLE_EQ(normOf({3.0, -4.0}), 5.0);
  EXPECT_DOUBLE_EQ(normOf({3e200, -4e200}), 5e200);
  EXPECT_DOUBLE_EQ(normOf({3e-200, -4e-200}), 5e-200);
  EXPECT_DOUBLE_EQ(normOf({3e-300, 4e-300}), 5e-300);
}

TEST(Norm, DenormalValuesHaveANorm) {
  EXPECT_NEAR(normOf({3e-310, 0.0, -4e-310}), 5e-310, 1e-319);
  EXPECT_NEAR(normOf({1e-315}), 1e-315, 1e-317);
}

TEST(Norm, AgreesWithEigenFromTheSmallestToTheLargestNumbers) {
  // From 1e-323, over the limit of about 2.3e-316 below which both give 0, to 1e308.
  for (int exponent = -323; exponent <= 308; ++exponent) {
    double const value = std::pow(10.0, exponent);
    Eigen::Vector3d const values(0.3 * value, 0.0, -0.4 * value);
    double const expected = values.blueNorm();
    EXPECT_NEAR(normOf({values[0], values[1], values[2]}), expected, 4e-16 * expected) << exponent;
  }
}

TEST(Norm, NanAndInfinityAreKept) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  double const infinity = std::numeric_limits<double>::infinity();
  EXPECT_TRUE(std::isnan(normOf({nan, 0.0, 0.0})));
  EXPECT_TRUE(std::isnan(normOf({1.0, nan, 0.0})));
  EXPECT_EQ(normOf({1.0, -infinity}), infinity);
}

}  // namespace
}  // namespace FullWaveform
