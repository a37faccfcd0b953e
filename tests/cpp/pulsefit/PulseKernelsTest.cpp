#include <fullwaveform/pulsefit/PulseKernels.h>

#include <array>
#include <cstddef>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Values = std::vector<double>;

constexpr std::size_t count = 24;

Values randomValues(unsigned int seed, std::size_t size = count + 16) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  Values values(size);
  for (double& value : values) {
    value = uniform(random);
  }
  return values;
}

class PulseKernelsTest : public testing::TestWithParam<InstructionSet> {
 protected:
  void SetUp() override {
    if (!isAvailable(GetParam())) {
      GTEST_SKIP() << "this machine does not have the instruction set";
    }
  }

  [[nodiscard]] PulseKernels const& kernels() const { return pulseKernels(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(InstructionSets, PulseKernelsTest,
                         testing::Values(InstructionSet::Baseline, InstructionSet::Avx2));

struct Columns {
  Values value = Values(count + 16);
  Values byLag = Values(count + 16);
  Values byVariance = Values(count + 16);

  PulseColumns pointers() { return {value.data(), byLag.data(), byVariance.data()}; }
};

Columns randomColumns(unsigned int seed) {
  return {randomValues(seed), randomValues(seed + 1), randomValues(seed + 2)};
}

TEST_P(PulseKernelsTest, InterpolateSumsTheSeries) {
  std::array<Values, 5> const rows{randomValues(1), randomValues(2), randomValues(3), randomValues(4),
                                   randomValues(5)};
  PulseTable::Place const place{
      0,
      count,
      {rows[0].data(), rows[1].data(), rows[2].data(), rows[3].data(), rows[4].data()},
      {1.0, 0.5, -0.25, 0.125, 2.0}};
  Columns columns;
  kernels().interpolate(place, 3, count, columns.pointers());
  for (std::size_t i = 0; i < count; ++i) {
    auto const row = [&](std::size_t order) { return rows[order][i + 3]; };
    EXPECT_NEAR(columns.value[i], row(0) + 0.5 * row(1) - 0.25 * row(2) + 0.125 * row(3) + 2.0 * row(4),
                1e-15);
    EXPECT_NEAR(columns.byLag[i], row(1) + 0.5 * row(2) - 0.25 * row(3) + 0.125 * row(4), 1e-15);
    EXPECT_NEAR(columns.byVariance[i], 0.5 * (row(2) + 0.5 * row(3) - 0.25 * row(4)), 1e-15);
  }
}

TEST_P(PulseKernelsTest, SubtractBaselineAndPulse) {
  Values const signal = randomValues(8);
  Values const pulse = randomValues(7);
  Values residual(count);
  kernels().subtractBaseline(signal.data(), 0.5, count, residual.data());
  kernels().subtractPulse(3.0, pulse.data(), count, residual.data());
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_DOUBLE_EQ(residual[i], (signal[i] - 0.5) - 3.0 * pulse[i]);
  }
}

TEST_P(PulseKernelsTest, SumResidual) {
  Values const weights = randomValues(9);
  Values const residual = randomValues(10);
  ResidualSums const sums = kernels().sumResidual(weights.data(), residual.data(), count);
  double plain = 0.0;
  double squares = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    plain += weights[i] * residual[i];
    squares += weights[i] * residual[i] * residual[i];
  }
  EXPECT_NEAR(sums.plain, plain, 1e-13);
  EXPECT_NEAR(sums.squares, squares, 1e-13);
}

TEST_P(PulseKernelsTest, SumSquaresOfExactlySoManyValues) {
  Values const values{3.0, 1.0, 2.0, 1.0, 1.0, 1.0, 1.0, 1.0, 2.0, 4.0, 100.0};
  EXPECT_EQ(kernels().sumSquares(values.data(), 10), 39.0);
  EXPECT_EQ(kernels().sumSquares(values.data(), 3), 14.0);
}

/// Sum of the products of the first `count` values.
double sumOf(Values const& a, Values const& b, Values const& c) {
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    sum += a[i] * b[i] * c[i];
  }
  return sum;
}

TEST_P(PulseKernelsTest, SumEchoAndMultiply) {
  Columns left = randomColumns(11);
  Columns right = randomColumns(21);
  Values const weights = randomValues(31);
  Values const residual = randomValues(32);
  Values const ones(count + 16, 1.0);
  EchoProducts const own = kernels().sumEcho(left.pointers(), weights.data(), residual.data(), count);
  double products[9];
  kernels().multiply(left.pointers(), right.pointers(), weights.data(), count, products);
  Values const* const leftColumns[3] = {&left.byLag, &left.value, &left.byVariance};
  Values const* const rightColumns[3] = {&right.byLag, &right.value, &right.byVariance};
  double const* product = own.products;
  for (std::size_t a = 0; a < 3; ++a) {
    EXPECT_NEAR(own.sums[a], sumOf(weights, *leftColumns[a], ones), 1e-13);
    EXPECT_NEAR(own.residuals[a], sumOf(weights, *leftColumns[a], residual), 1e-13);
    for (std::size_t b = 0; b <= a; ++b) {
      EXPECT_NEAR(*product++, sumOf(weights, *leftColumns[a], *leftColumns[b]), 1e-13);
    }
    for (std::size_t b = 0; b < 3; ++b) {
      EXPECT_NEAR(products[3 * a + b], sumOf(weights, *leftColumns[a], *rightColumns[b]), 1e-13);
    }
  }
}

TEST_P(PulseKernelsTest, FactorOfAMatrixByHand) {
  double const left = 99.0;                    // overwritten
  Values rows{4,    2,    -2, 8,  0, 0, 0, 0,  // with the right side (8, 4, 12)
              left, 10,   2,  4,  0, 0, 0, 0,  //
              left, left, 6,  12, 0, 0, 0, 0};
  ASSERT_TRUE(kernels().factor(rows.data(), 3, 8));
  EXPECT_EQ(rows[0], 0.25);  // inverses of D = 4, 9, 4
  EXPECT_EQ(rows[9], 1.0 / 9.0);
  EXPECT_EQ(rows[18], 0.25);
  EXPECT_EQ(rows[1], 0.5);
  EXPECT_EQ(rows[2], -0.5);
  EXPECT_EQ(rows[10], 1.0 / 3.0);
  EXPECT_EQ(rows[3], 2.0);  // U^T D y = right side
  EXPECT_EQ(rows[11], 0.0);
  EXPECT_EQ(rows[19], 4.0);
}

TEST_P(PulseKernelsTest, FactorSkipsZerosAcrossLanes) {
  // Ones on the diagonal and in the last column: D is 1 except for its last value, 12 - 9 = 3.
  Values rows(10 * 16, 0.0);
  for (std::size_t k = 0; k < 9; ++k) {
    rows[17 * k] = 1.0;
    rows[16 * k + 9] = 1.0;
    rows[16 * k + 10] = static_cast<double>(k);
  }
  rows[16 * 9 + 9] = 12.0;
  rows[16 * 9 + 10] = 42.0;
  ASSERT_TRUE(kernels().factor(rows.data(), 10, 16));
  EXPECT_EQ(rows[16 * 9 + 9], 1.0 / 3.0);
  EXPECT_EQ(rows[16 * 9 + 10], 2.0);  // (42 - sum of 0 to 8) / 3
  EXPECT_EQ(rows[16 * 8 + 10], 8.0);
}

TEST_P(PulseKernelsTest, FactorRefusesWhatIsNotPositiveDefinite) {
  Values singular{1, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  EXPECT_FALSE(kernels().factor(singular.data(), 2, 8));
  Values undefined{std::numeric_limits<double>::quiet_NaN(), 0, 0, 0, 0, 0, 0, 0};
  EXPECT_FALSE(kernels().factor(undefined.data(), 1, 8));
}

TEST_P(PulseKernelsTest, Correlate) {
  Values const values = randomValues(41, count + 5 + 16);
  Values const taps = randomValues(42, 5);
  Values scores(count + 8);
  kernels().correlate(values.data(), taps.data(), taps.size(), count, scores.data());
  for (std::size_t i = 0; i < count; ++i) {
    double expected = 0.0;
    for (std::size_t j = 0; j < taps.size(); ++j) {
      expected += taps[j] * values[i + j];
    }
    EXPECT_NEAR(scores[i], expected, 1e-14);
  }
}

}  // namespace
}  // namespace FullWaveform
