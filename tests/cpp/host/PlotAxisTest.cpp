#include <fullwaveform/host/PlotAxis.h>

#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace OrvikPDF {
namespace {

using Ticks = std::vector<double>;

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

void expectRange(AxisRange range, double low, double high) {
  EXPECT_EQ(range.low, low);
  EXPECT_EQ(range.high, high);
}

TEST(DrawableRange, KeepsAnOrdinaryRange) {
  expectRange(drawableRange(-2.5, 7.0), -2.5, 7.0);
  expectRange(drawableRange(7.0, -2.5), -2.5, 7.0);
  expectRange(drawableRange(259200.0, 259200.000001), 259200.0, 259200.000001);
}

TEST(DrawableRange, WidensARangeOfEqualEnds) {
  expectRange(drawableRange(0.0, 0.0), -1.0, 1.0);
  expectRange(drawableRange(180.0, 180.0), 162.0, 198.0);
  expectRange(drawableRange(-10.0, -10.0), -11.0, -9.0);
}

TEST(DrawableRange, WidensARangeOfNearlyEqualEnds) {
  AxisRange const range = drawableRange(1.0, 1.0 + 4e-16);
  EXPECT_NEAR(range.low, 0.9, 1e-12);
  EXPECT_NEAR(range.high, 1.1, 1e-12);
  AxisRange const tiny = drawableRange(0.0, 5e-324);
  EXPECT_EQ(tiny.low, -1.0);
  EXPECT_EQ(tiny.high, 1.0);
}

TEST(DrawableRange, LimitsNonFiniteEnds) {
  expectRange(drawableRange(NaN, 3.0), 0.0, 1.0);
  expectRange(drawableRange(3.0, NaN), 0.0, 1.0);
  expectRange(drawableRange(-infinity, infinity), -8e307, 8e307);
  expectRange(drawableRange(-1.7e308, 5.0), -8e307, 5.0);
  AxisRange const far = drawableRange(infinity, infinity);
  EXPECT_LT(far.low, far.high);
  EXPECT_TRUE(std::isfinite(far.high - far.low));
}

TEST(AxisRange, FractionIsZeroAndOneAtTheEnds) {
  AxisRange const range{-2.0, 6.0};
  EXPECT_EQ(range.fractionOf(-2.0), 0.0);
  EXPECT_EQ(range.fractionOf(0.0), 0.25);
  EXPECT_EQ(range.fractionOf(6.0), 1.0);
  EXPECT_EQ((AxisRange{-8e307, 8e307}.fractionOf(0.0)), 0.5);
}

TEST(FindTicks, StepsAreOneTwoOrFive) {
  EXPECT_EQ(findTicks({0.0, 10.0}, 10), (Ticks{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(findTicks({0.0, 10.0}, 9), (Ticks{0, 2, 4, 6, 8, 10}));
  EXPECT_EQ(findTicks({0.0, 10.0}, 4), (Ticks{0, 5, 10}));
  EXPECT_EQ(findTicks({0.0, 10.0}, 1), (Ticks{0, 10}));
  EXPECT_EQ(findTicks({0.0, 1.0}, 5), (Ticks{0.0, 0.2, 0.4, 0.6, 0.8, 1.0}));
  EXPECT_EQ(findTicks({0.0, 1500.0}, 5), (Ticks{0, 500, 1000, 1500}));
  EXPECT_EQ(findTicks({0.0, 5e-9}, 5), (Ticks{0, 1e-9, 2e-9, 3e-9, 4e-9, 5e-9}));
  EXPECT_EQ(findTicks({0.0, 1e6}, 4), (Ticks{0, 500000, 1000000}));
}

TEST(FindTicks, AreInsideTheRange) {
  EXPECT_EQ(findTicks({0.3, 2.9}, 5), (Ticks{1, 2}));
  EXPECT_EQ(findTicks({-79.0, 79.0}, 5), (Ticks{-50, 0, 50}));
  EXPECT_EQ(findTicks({1000000.0, 1000004.0}, 4), (Ticks{1000000, 1000001, 1000002, 1000003, 1000004}));
}

TEST(FindTicks, AreTheDoublesNearestToTheirDecimalText) {
  EXPECT_EQ(findTicks({-0.35, 0.35}, 10), (Ticks{-0.3, -0.2, -0.1, 0.0, 0.1, 0.2, 0.3}));
}

TEST(FindTicks, ZeroIsNotNegative) {
  Ticks const ticks = findTicks({-0.3, 1.2}, 3);
  ASSERT_EQ(ticks, (Ticks{0, 0.5, 1}));
  EXPECT_FALSE(std::signbit(ticks[0]));
}

TEST(FindTicks, TicksAtTheEndsAreKeptDespiteRounding) {
  // 3 * 0.1 is slightly more than 0.3.
  EXPECT_EQ(findTicks({3 * 0.1, 0.7}, 5), (Ticks{0.3, 0.4, 0.5, 0.6, 0.7}));
}

TEST(FindTicks, HugeAndTinyRangesHaveTicks) {
  for (AxisRange const range : {drawableRange(-infinity, infinity), drawableRange(1e300, 1e300),
                                drawableRange(0.0, 1e-289), drawableRange(1e15, 1e15 + 100)}) {
    Ticks const ticks = findTicks(range, 5);
    ASSERT_FALSE(ticks.empty());
    EXPECT_LE(ticks.size(), 6U);
    // Within rounding errors.
    EXPECT_GE(range.fractionOf(ticks.front()), -1e-8);
    EXPECT_LE(range.fractionOf(ticks.back()), 1.0 + 1e-8);
  }
}

TEST(FindTicks, NumberOfIntervalsIsLimited) {
  EXPECT_LE(findTicks({0.0, 1.0}, 4000000000U).size(), 51U);
  EXPECT_EQ(findTicks({0.0, 1.0}, 0), (Ticks{0, 1}));
}

}  // namespace
}  // namespace OrvikPDF
