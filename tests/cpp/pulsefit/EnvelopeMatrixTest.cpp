#include <fullwaveform/pulsefit/EnvelopeMatrix.h>

#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

/// (4 2 0; 2 10 3; 0 3 2) = L L^T with L = (2; 1 3; 0 1 1).
EnvelopeMatrix tridiagonal() {
  EnvelopeMatrix matrix;
  matrix.reset(std::vector<std::size_t>{0, 0, 1});
  matrix.at(0, 0) = 4.0;
  matrix.at(1, 0) = 2.0;
  matrix.at(1, 1) = 10.0;
  matrix.at(2, 1) = 3.0;
  matrix.at(2, 2) = 2.0;
  return matrix;
}

TEST(EnvelopeMatrix, ElementsAreSymmetricAndZeroOutsideTheEnvelope) {
  EnvelopeMatrix const matrix = tridiagonal();
  EXPECT_EQ(matrix.size(), 3U);
  EXPECT_EQ(matrix(1, 0), 2.0);
  EXPECT_EQ(matrix(0, 1), 2.0);
  EXPECT_EQ(matrix(1, 2), 3.0);
  EXPECT_EQ(matrix(2, 0), 0.0);
  EXPECT_EQ(matrix(0, 2), 0.0);
}

TEST(EnvelopeMatrix, QuadraticFormOfSomeRows) {
  EnvelopeMatrix const matrix = tridiagonal();
  std::vector<double> const x{1.0, -2.0, 3.0};
  // 4 + 40 + 18 - 2 * 4 - 2 * 18
  EXPECT_DOUBLE_EQ(matrix.quadraticForm(x, 0, 3), 18.0);
  EXPECT_DOUBLE_EQ(matrix.quadraticForm(x, 1, 3), 22.0);
}

TEST(EnvelopeMatrix, ItsFactorIsThatOfCholesky) {
  EnvelopeMatrix matrix = tridiagonal();
  ASSERT_TRUE(matrix.factor());
  EXPECT_DOUBLE_EQ(matrix(0, 0), 2.0);
  EXPECT_DOUBLE_EQ(matrix(1, 0), 1.0);
  EXPECT_DOUBLE_EQ(matrix(1, 1), 3.0);
  EXPECT_DOUBLE_EQ(matrix(2, 1), 1.0);
  EXPECT_DOUBLE_EQ(matrix(2, 2), 1.0);
}

TEST(EnvelopeMatrix, SolvesWithTheFactor) {
  EnvelopeMatrix matrix = tridiagonal();
  ASSERT_TRUE(matrix.factor());
  // The matrix times (1, -2, 3).
  std::vector<double> x{0.0, -9.0, 0.0};
  matrix.solve(x, 0, 3);
  // Column 1 of the inverse is (-4, 8, -12) / 36 of the cofactors; times -9.
  EXPECT_NEAR(x[0], 1.0, 1e-14);
  EXPECT_NEAR(x[1], -2.0, 1e-14);
  EXPECT_NEAR(x[2], 3.0, 1e-14);
}

TEST(EnvelopeMatrix, TheSolutionIsTakenForZeroOutsideTheRows) {
  EnvelopeMatrix matrix = tridiagonal();
  ASSERT_TRUE(matrix.factor());
  std::vector<double> x{0.0, 9.0, 0.0};
  matrix.solve(x, 1, 2);
  EXPECT_EQ(x[0], 0.0);
  EXPECT_DOUBLE_EQ(x[1], 1.0);
  EXPECT_EQ(x[2], 0.0);
}

TEST(EnvelopeMatrix, ARowThatIsACombinationOfOthersIsSingular) {
  EnvelopeMatrix matrix;
  matrix.reset(std::vector<std::size_t>{0, 0});
  matrix.at(0, 0) = 3.0;
  matrix.at(1, 0) = 6.0;
  matrix.at(1, 1) = 12.0 * (1.0 + 1e-12);
  EXPECT_FALSE(matrix.factor());
  matrix.reset(std::vector<std::size_t>{0});
  EXPECT_FALSE(matrix.factor());
}

}  // namespace
}  // namespace FullWaveform
