#include <fullwaveform/pulsefit/Cholesky.h>

#include <array>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Matrix = std::array<double, 9>;

// Factors of {4, 2, -2; 2, 10, 2; -2, 2, 6}, by hand, and of the right side (2, 28, 20).
constexpr std::array<double, 12> factors{0.25, 0.5, -0.5, 0.5, 0, 1.0 / 9.0, 1.0 / 3.0, 3.0, 0, 0, 0.25, 3.0};

TEST(Cholesky, SolvesForTheFactoredRightSide) {
  std::array<double, 3> x{};
  choleskySolve(factors, 3, 4, x);
  EXPECT_NEAR(x[0], 1.0, 1e-15);
  EXPECT_NEAR(x[1], 2.0, 1e-15);
  EXPECT_NEAR(x[2], 3.0, 1e-15);
}

TEST(Cholesky, InvertsADiagonalAndAFullMatrix) {
  Matrix inverse{};
  choleskyInverse(Matrix{0.25, 0, 0, 0, 0.0625, 0, 0, 0, 0.04}, 3, 3, inverse);
  EXPECT_EQ(inverse, (Matrix{0.25, 0, 0, 0, 0.0625, 0, 0, 0, 0.04}));
  choleskyInverse(factors, 3, 4, inverse);
  Matrix const expected{56, -16, 24, -16, 20, -12, 24, -12, 36};  // over the determinant, 144
  for (std::size_t i = 0; i < 9; ++i) {
    EXPECT_NEAR(inverse[i], expected[i] / 144.0, 1e-15) << i;
  }
}

}  // namespace
}  // namespace FullWaveform
