#include <fullwaveform/fitting/leastsquares/GaussianSum.h>

#include <cmath>
#include <cstddef>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include "nist/NistGauss.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

namespace Tolerance = Testing::Tolerance;
using Values = std::vector<double>;

constexpr double atOneWidth = 0.6065306597126334;   // exp(-1/2)
constexpr double atTwoWidths = 0.1353352832366127;  // exp(-2)

/// A sum with a signal, evaluated.
GaussianSum evaluated(Values const& parameters, int first, Values const& signal) {
  GaussianSum sum;
  sum.setSignal(signal, first, parameters.size());
  sum.evaluate(parameters);
  return sum;
}

Values columnOf(GaussianSum& sum, std::size_t parameter) {
  return {sum.column(parameter), sum.column(parameter) + sum.samples()};
}

Values residualOf(Values const& parameters, int first, Values const& signal) {
  GaussianSum sum = evaluated(parameters, first, signal);
  return columnOf(sum, parameters.size());
}

Values jacobianOf(Values const& parameters, int first, std::size_t samples) {
  GaussianSum sum = evaluated(parameters, first, Values(samples, 0.0));
  Values squares(parameters.size());
  sum.differentiate(squares);
  Values jacobian;
  for (std::size_t p = 0; p < parameters.size(); ++p) {
    Values const column = columnOf(sum, p);
    jacobian.insert(jacobian.end(), column.begin(), column.end());
  }
  return jacobian;
}

/// Change of the residual with one parameter, from steps to both sides.
Values centralDifference(Values parameters, std::size_t parameter, int first, std::size_t samples) {
  double const step = 1e-5;
  Values const zeros(samples, 0.0);
  parameters[parameter] += step;
  Values difference = residualOf(parameters, first, zeros);
  parameters[parameter] -= 2.0 * step;
  Values const below = residualOf(parameters, first, zeros);
  for (std::size_t i = 0; i < samples; ++i) {
    difference[i] = (difference[i] - below[i]) / (2.0 * step);
  }
  return difference;
}

void expectNear(Values const& found, Values const& expected, double tolerance) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_NEAR(found[i], expected[i], tolerance) << "at " << i;
  }
}

TEST(GaussianAt, FallsToTheRootOfEInOneWidth) {
  EXPECT_EQ(gaussianAt(5.0, 5.0, 3.0), 1.0);
  EXPECT_DOUBLE_EQ(gaussianAt(8.0, 5.0, 3.0), atOneWidth);
  EXPECT_DOUBLE_EQ(gaussianAt(2.0, 5.0, -3.0), atOneWidth);
  EXPECT_DOUBLE_EQ(gaussianAt(11.0, 5.0, 3.0), atTwoWidths);
}

TEST(GaussianAt, WidthOfZeroGivesNanAtThePositionOnly) {
  EXPECT_TRUE(std::isnan(gaussianAt(5.0, 5.0, 0.0)));
  EXPECT_EQ(gaussianAt(5.5, 5.0, 0.0), 0.0);
}

TEST(GaussianSum, ResidualIsSumMinusSignal) {
  expectNear(
      residualOf({8.0, 5.0, 1.0}, 3, {0.0, 1.0, 10.0, 3.0, -2.0}),
      {8.0 * atTwoWidths, 8.0 * atOneWidth - 1.0, -2.0, 8.0 * atOneWidth - 3.0, 8.0 * atTwoWidths + 2.0},
      1e-14);
}

TEST(GaussianSum, GaussiansAdd) {
  expectNear(residualOf({8.0, 5.0, 1.0, 100.0, 8.0, 3.0}, 5, {0.0}), {8.0 + 100.0 * atOneWidth}, 1e-13);
}

TEST(GaussianSum, WithoutGaussiansTheResidualIsTheNegativeSignal) {
  EXPECT_EQ(residualOf({}, 3, {4.0, -5.0}), (Values{-4.0, 5.0}));
  EXPECT_EQ(jacobianOf({}, 3, 2), Values());
}

TEST(GaussianSum, AmplitudeAndPositionEnterWithTheirAbsoluteValues) {
  Values const signal{0.0, 1.0, 2.0, 3.0};
  Values const expected = residualOf({8.0, 5.0, 1.5}, 3, signal);
  EXPECT_EQ(residualOf({-8.0, 5.0, 1.5}, 3, signal), expected);
  EXPECT_EQ(residualOf({8.0, -5.0, 1.5}, 3, signal), expected);
  EXPECT_EQ(residualOf({-8.0, -5.0, -1.5}, 3, signal), expected);
}

TEST(GaussianSum, JacobianHoldsColumnsOfOneParameterEach) {
  // One width after the position: distance 2, width 2.
  expectNear(jacobianOf({8.0, 5.0, 2.0}, 5, 3),
             {1.0, 0.8824969025845955, atOneWidth,              //
              0.0, 2.0 * 0.8824969025845955, 4.0 * atOneWidth,  //
              0.0, 0.8824969025845955, 4.0 * atOneWidth},       //
             1e-14);
}

TEST(GaussianSum, JacobianAgreesWithCentralDifferences) {
  Values const parameters{900.0, 12.3, 1.7, 250.0, 16.9, 2.6, 40.0, 30.0, 4.0};
  std::size_t const samples = 40;
  Values const jacobian = jacobianOf(parameters, 3, samples);
  for (std::size_t p = 0; p < parameters.size(); ++p) {
    auto const column = jacobian.begin() + static_cast<std::ptrdiff_t>(p * samples);
    expectNear({column, column + static_cast<std::ptrdiff_t>(samples)},
               centralDifference(parameters, p, 3, samples), Tolerance::derivative);
  }
}

TEST(GaussianSum, AmplitudeColumnHasNoSignFactor) {
  Values const jacobian = jacobianOf({-8.0, 5.0, 1.0}, 4, 2);
  expectNear({jacobian[0], jacobian[1]}, {atOneWidth, 1.0}, 1e-14);
  // The residual itself falls when a negative amplitude rises.
  expectNear(centralDifference({-8.0, 5.0, 1.0}, 0, 4, 2), {-atOneWidth, -1.0}, Tolerance::derivative);
}

TEST(GaussianSum, OtherColumnsDependOnAbsoluteValuesOnly) {
  EXPECT_EQ(jacobianOf({-8.0, -5.0, -1.5}, 3, 6), jacobianOf({8.0, 5.0, 1.5}, 3, 6));
}

TEST(GaussianSum, ColumnsArePaddedWithZeros) {
  Values const parameters{8.0, 5.0, 2.0};
  GaussianSum sum = evaluated(parameters, 3, Values(9, 4.0));
  Values squares(3);
  sum.differentiate(squares);
  ASSERT_GT(sum.stride(), 9U);
  for (std::size_t column = 0; column < 4; ++column) {
    for (std::size_t row = 9; row < sum.stride(); ++row) {
      EXPECT_EQ(sum.column(column)[row], 0.0);
    }
  }
}

TEST(GaussianSum, SquaresAreSumsOverTheColumns) {
  Values const parameters{8.0, 5.0, 2.0};
  GaussianSum sum;
  Values const signal{1.0, 2.0, 3.0};
  sum.setSignal(signal, 5, 3);
  // Residuals 7, 8 exp(-1/8) - 2 and 8 exp(-1/2) - 3; columns as above.
  double const near = 0.8824969025845955;
  EXPECT_NEAR(
      sum.evaluate(parameters),
      49.0 + (8.0 * near - 2.0) * (8.0 * near - 2.0) + (8.0 * atOneWidth - 3.0) * (8.0 * atOneWidth - 3.0),
      1e-12);
  Values squares(3);
  sum.differentiate(squares);
  expectNear(squares,
             {1.0 + near * near + atOneWidth * atOneWidth, 4.0 * near * near + 16.0 * atOneWidth * atOneWidth,
              near * near + 16.0 * atOneWidth * atOneWidth},
             1e-13);
}

TEST(GaussianSum, CertifiedParametersAreTheLeastSquaresMinimum) {
  for (Testing::NistGauss const& set : Testing::nistGauss) {
    auto const& b = set.certified;
    double const root2 = std::sqrt(2.0);
    Values const parameters{b[2], b[3], b[4] / root2, b[5], b[6], b[7] / root2};
    Values signal(set.y.begin(), set.y.end());
    for (std::size_t i = 0; i < signal.size(); ++i) {
      signal[i] -= b[0] * std::exp(-b[1] * static_cast<double>(i + 1));
    }
    Values const residual = residualOf(parameters, 1, signal);
    double squares = 0.0;
    for (double const value : residual) {
      squares += value * value;
    }
    EXPECT_NEAR(squares / set.residualSumOfSquares, 1.0, Tolerance::certifiedDigits) << set.name;

    // There the residual is orthogonal to every column of the Jacobian.
    Values const jacobian = jacobianOf(parameters, 1, residual.size());
    for (std::size_t p = 0; p < parameters.size(); ++p) {
      double along = 0.0;
      double column = 0.0;
      for (std::size_t i = 0; i < residual.size(); ++i) {
        double const derivative = jacobian[p * residual.size() + i];
        along += derivative * residual[i];
        column += derivative * derivative;
      }
      EXPECT_NEAR(along / std::sqrt(column * squares), 0.0, Tolerance::certifiedMinimum) << set.name << p;
    }
  }
}

TEST(GaussianSum, ExtremeGaussiansHaveNoNanDerivatives) {
  // The shape is 0 at every sample, or 1 at the one where the distance is 0: products of 0 and a factor that
  // overflows.
  for (Values const& parameters : {Values{300.0, 1e160, 2.0}, Values{300.0, 4.0, 1e-105}}) {
    GaussianSum sum = evaluated(parameters, 0, Values(9, 4.0));
    Values squares(3);
    sum.differentiate(squares);
    EXPECT_EQ(squares, (Values{parameters[1] == 4.0 ? 1.0 : 0.0, 0.0, 0.0}));
  }
}

TEST(GaussianSum, WidthWithInfiniteThirdPowerHasNoDerivative) {
  // A Gaussian far out of range: 1e110 wide, 2e111 from the samples, where it is exp(-200) high. The third
  // power of the width is infinite and the derivative 0; the one by the position is finite.
  std::vector<double> const parameters{1e115, 2e111, -1e110};
  GaussianSum sum;
  std::vector<double> const signal(5, 0.0);
  sum.setSignal(signal, 0, parameters.size());
  sum.evaluate(parameters);
  std::vector<double> squares(3);
  sum.differentiate(squares);
  EXPECT_NEAR(sum.column(1)[2] / (-2e6 * std::exp(-200.0)), 1.0, 1e-12);
  EXPECT_EQ(sum.column(2)[2], 0.0);
  EXPECT_EQ(squares[2], 0.0);
}

}  // namespace
}  // namespace FullWaveform
