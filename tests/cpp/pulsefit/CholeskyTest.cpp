#include <fullwaveform/pulsefit/Cholesky.h>

#include <array>
#include <limits>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Matrix = std::array<double, 9>;

TEST(Cholesky, FactorsOfAMatrixByHand) {
  Matrix matrix{4, 2, -2, 2, 10, 2, -2, 2, 6};
  ASSERT_TRUE(choleskyFactor(matrix, 3));
  EXPECT_EQ(matrix[0], 0.25);  // inverses of D = 4, 9, 4
  EXPECT_EQ(matrix[4], 1.0 / 9.0);
  EXPECT_EQ(matrix[8], 0.25);
  EXPECT_EQ(matrix[3], 0.5);
  EXPECT_EQ(matrix[6], -0.5);
  EXPECT_EQ(matrix[7], 1.0 / 3.0);
}

TEST(Cholesky, SolvesWithTheFactors) {
  Matrix const factor{0.25, 0, 0, 0.5, 1.0 / 9.0, 0, -0.5, 1.0 / 3.0, 0.25};
  std::array<double, 3> x{2.0, 28.0, 20.0};  // the matrix above times (1, 2, 3)
  choleskySolve(factor, 3, x);
  EXPECT_NEAR(x[0], 1.0, 1e-14);
  EXPECT_NEAR(x[1], 2.0, 1e-14);
  EXPECT_NEAR(x[2], 3.0, 1e-14);
}

TEST(Cholesky, InvertsADiagonalAndAFullMatrix) {
  Matrix factor{0.25, 0, 0, 0, 0.0625, 0, 0, 0, 0.04};
  Matrix inverse{};
  choleskyInverse(factor, 3, inverse);
  EXPECT_EQ(inverse, (Matrix{0.25, 0, 0, 0, 0.0625, 0, 0, 0, 0.04}));
  factor = {0.25, 0, 0, 0.5, 1.0 / 9.0, 0, -0.5, 1.0 / 3.0, 0.25};
  choleskyInverse(factor, 3, inverse);
  Matrix const expected{56, -16, 24, -16, 20, -12, 24, -12, 36};  // over the determinant, 144
  for (std::size_t i = 0; i < 9; ++i) {
    EXPECT_NEAR(inverse[i], expected[i] / 144.0, 1e-15) << i;
  }
}

TEST(Cholesky, RefusesWhatIsNotPositiveDefinite) {
  Matrix singular{1, 1, 0, 1, 1, 0, 0, 0, 1};
  EXPECT_FALSE(choleskyFactor(singular, 3));
  Matrix undefined{1, 0, 0, 0, std::numeric_limits<double>::quiet_NaN(), 0, 0, 0, 1};
  EXPECT_FALSE(choleskyFactor(undefined, 3));
}

}  // namespace
}  // namespace FullWaveform
