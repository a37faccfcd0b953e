#include <fullwaveform/host/PlotTicks.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace OrvikPDF {
namespace {

using Labels = std::vector<std::string>;
using Positions = std::vector<double>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

void expectRange(AxisRange range, double low, double high) {
  EXPECT_EQ(range.low, low);
  EXPECT_EQ(range.high, high);
}

TEST(DrawableRange, AnOrdinaryRangeStays) {
  expectRange(drawableRange(-2.5, 7.0), -2.5, 7.0);
  expectRange(drawableRange(7.0, -2.5), -2.5, 7.0);
}

TEST(DrawableRange, EqualEndsAreMovedApart) {
  expectRange(drawableRange(0.0, 0.0), -1.0, 1.0);
  expectRange(drawableRange(180.0, 180.0), 162.0, 198.0);
  expectRange(drawableRange(-10.0, -10.0), -11.0, -9.0);
}

TEST(DrawableRange, EndsThatAreHardlyDifferentAreMovedApart) {
  AxisRange const range = drawableRange(1.0, 1.0 + 4e-16);
  EXPECT_NEAR(range.low, 0.9, 1e-12);
  EXPECT_NEAR(range.high, 1.1, 1e-12);
  AxisRange const tiny = drawableRange(0.0, 5e-324);
  EXPECT_EQ(tiny.low, -1.0);
  EXPECT_EQ(tiny.high, 1.0);
}

TEST(DrawableRange, ATimeOfWeekWithMicrosecondsIsARange) {
  expectRange(drawableRange(259200.0, 259200.000001), 259200.0, 259200.000001);
}

TEST(DrawableRange, WhatIsNotFiniteIsBroughtBack) {
  expectRange(drawableRange(notANumber, 3.0), 0.0, 1.0);
  expectRange(drawableRange(3.0, notANumber), 0.0, 1.0);
  expectRange(drawableRange(-infinity, infinity), -8e307, 8e307);
  expectRange(drawableRange(-1.7e308, 5.0), -8e307, 5.0);
  AxisRange const far = drawableRange(infinity, infinity);
  EXPECT_LT(far.low, far.high);
  EXPECT_TRUE(std::isfinite(far.high - far.low));
}

TEST(WithMargin, GrowsOnBothSides) {
  expectRange(withMargin({0.0, 10.0}, 0.25), -2.5, 12.5);
}

TEST(PlaceInRange, IsZeroAndOneAtTheEnds) {
  EXPECT_EQ(placeInRange(-2.0, {-2.0, 6.0}), 0.0);
  EXPECT_EQ(placeInRange(0.0, {-2.0, 6.0}), 0.25);
  EXPECT_EQ(placeInRange(6.0, {-2.0, 6.0}), 1.0);
  EXPECT_EQ(placeInRange(0.0, {-8e307, 8e307}), 0.5);
}

void expectTicks(AxisRange range, unsigned int mostIntervals, Labels const& labels, int exponent = 0,
                 std::string const& offset = "") {
  AxisTicks const ticks = findTicks(range, mostIntervals);
  EXPECT_EQ(ticks.labels, labels);
  EXPECT_EQ(ticks.exponent, exponent);
  EXPECT_EQ(ticks.offset, offset);
  EXPECT_EQ(ticks.positions.size(), ticks.labels.size());
}

TEST(FindTicks, StepsAreOneTwoOrFive) {
  expectTicks({0.0, 10.0}, 10, {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10"});
  expectTicks({0.0, 10.0}, 9, {"0", "2", "4", "6", "8", "10"});
  expectTicks({0.0, 10.0}, 4, {"0", "5", "10"});
  expectTicks({0.0, 10.0}, 1, {"0", "10"});
  expectTicks({0.0, 1.0}, 5, {"0.0", "0.2", "0.4", "0.6", "0.8", "1.0"});
  expectTicks({0.0, 1500.0}, 5, {"0", "500", "1000", "1500"});
}

TEST(FindTicks, StandInsideTheRange) {
  expectTicks({0.3, 2.9}, 5, {"1", "2"});
  expectTicks({-79.0, 79.0}, 5, {"-50", "0", "50"});
}

TEST(FindTicks, PositionsAreTheLabels) {
  AxisTicks const ticks = findTicks({-0.35, 0.35}, 10);
  EXPECT_EQ(ticks.positions, (Positions{-0.3, -0.2, -0.1, 0.0, 0.1, 0.2, 0.3}));
  EXPECT_EQ(ticks.labels, (Labels{"-0.3", "-0.2", "-0.1", "0.0", "0.1", "0.2", "0.3"}));
}

TEST(FindTicks, RoundingAtTheEndsLosesNoTick) {
  // 3 * 0.1 is a little more than 0.3.
  expectTicks({3 * 0.1, 0.7}, 5, {"0.3", "0.4", "0.5", "0.6", "0.7"});
}

TEST(FindTicks, SmallAndLargeNumbersSharePowersOfAThousand) {
  expectTicks({0.0, 5e-9}, 5, {"0", "1", "2", "3", "4", "5"}, -9);
  expectTicks({0.0, 2e-4}, 4, {"0", "50", "100", "150", "200"}, -6);
  expectTicks({0.0, 1e6}, 4, {"0.0", "0.5", "1.0"}, 6);
  expectTicks({0.0, 250000.0}, 5, {"0", "50", "100", "150", "200", "250"}, 3);
  expectTicks({0.0, 65535.0}, 4, {"0", "20000", "40000", "60000"});
  expectTicks({0.0, 0.004}, 4, {"0.000", "0.001", "0.002", "0.003", "0.004"});
}

TEST(FindTicks, ARangeFarFromZeroIsLabelledFromAnOffset) {
  expectTicks({259200123.5, 259200123.54}, 4, {"0.00", "0.01", "0.02", "0.03", "0.04"}, 0, "259200123.5");
  expectTicks({1000000.0, 1000004.0}, 4, {"0", "1", "2", "3", "4"}, 0, "1000000");
  expectTicks({-1000004.0, -1000000.0}, 4, {"-4", "-3", "-2", "-1", "0"}, 0, "-1000000");
}

TEST(FindTicks, HugeAndTinyRangesHaveTicks) {
  for (AxisRange const range :
       {withMargin(drawableRange(-infinity, infinity), 0.05), drawableRange(1e300, 1e300),
        drawableRange(0.0, 1e-289), drawableRange(1e15, 1e15 + 100)}) {
    AxisTicks const ticks = findTicks(range, 5);
    ASSERT_FALSE(ticks.positions.empty());
    EXPECT_LE(ticks.positions.size(), 6U);
    // Up to rounding.
    EXPECT_GE(placeInRange(ticks.positions.front(), range), -1e-8);
    EXPECT_LE(placeInRange(ticks.positions.back(), range), 1.0 + 1e-8);
    for (std::string const& label : ticks.labels) {
      EXPECT_LE(label.size(), 8U);
    }
  }
}

TEST(FindTicks, NumberOfIntervalsHasBounds) {
  EXPECT_LE(findTicks({0.0, 1.0}, 4000000000U).positions.size(), 51U);
  EXPECT_EQ(findTicks({0.0, 1.0}, 0).labels, (Labels{"0", "1"}));
}

}  // namespace
}  // namespace OrvikPDF
