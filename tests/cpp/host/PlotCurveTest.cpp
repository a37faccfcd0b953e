#include <fullwaveform/host/PlotCurve.h>

#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace OrvikPDF {
namespace {

using Values = std::vector<double>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr AxisRange toTen{0.0, 10.0};

void expectPoints(std::vector<FramePoint> const& points, std::vector<FramePoint> const& expected) {
  ASSERT_EQ(points.size(), expected.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    EXPECT_NEAR(points[i].x, expected[i].x, 1e-12) << "point " << i;
    EXPECT_NEAR(points[i].y, expected[i].y, 1e-12) << "point " << i;
  }
}

TEST(CutToFrame, ACurveInsideIsOneLine) {
  VisibleCurve const curve = cutToFrame(Values{0, 5, 10}, Values{2, 10, 0}, toTen, toTen);
  ASSERT_EQ(curve.lines.size(), 1U);
  expectPoints(curve.lines[0], {{0.0, 0.2}, {0.5, 1.0}, {1.0, 0.0}});
  expectPoints(curve.points, {{0.0, 0.2}, {0.5, 1.0}, {1.0, 0.0}});
  EXPECT_TRUE(curve.singles.empty());
}

TEST(CutToFrame, ALineThatLeavesEndsAtTheBorder) {
  // Up through y = 10 at x = 4, down through it at x = 6.
  VisibleCurve const curve = cutToFrame(Values{2, 5, 8}, Values{5, 12.5, 5}, toTen, toTen);
  ASSERT_EQ(curve.lines.size(), 2U);
  expectPoints(curve.lines[0], {{0.2, 0.5}, {0.4, 1.0}});
  expectPoints(curve.lines[1], {{0.6, 1.0}, {0.8, 0.5}});
  expectPoints(curve.points, {{0.2, 0.5}, {0.8, 0.5}});
  EXPECT_TRUE(curve.singles.empty());
}

TEST(CutToFrame, ASegmentMayCrossTheWholeFrame) {
  VisibleCurve const curve = cutToFrame(Values{-10, 20}, Values{-10, 20}, toTen, toTen);
  ASSERT_EQ(curve.lines.size(), 1U);
  expectPoints(curve.lines[0], {{0.0, 0.0}, {1.0, 1.0}});
  EXPECT_TRUE(curve.points.empty());
}

TEST(CutToFrame, WhatPassesOutsideIsNotSeen) {
  EXPECT_TRUE(cutToFrame(Values{0, 10}, Values{11, 12}, toTen, toTen).lines.empty());
  EXPECT_TRUE(cutToFrame(Values{-5, 4}, Values{6, 16}, toTen, toTen).lines.empty());
  EXPECT_TRUE(cutToFrame(Values{12, 12}, Values{0, 5}, toTen, toTen).lines.empty());
}

TEST(CutToFrame, ValuesThatAreNotFiniteInterrupt) {
  VisibleCurve const curve =
      cutToFrame(Values{0, 1, 2, 3, 4, 5, 6}, Values{1, 2, notANumber, 4, infinity, 6, 7}, toTen, toTen);
  ASSERT_EQ(curve.lines.size(), 2U);
  expectPoints(curve.lines[0], {{0.0, 0.1}, {0.1, 0.2}});
  expectPoints(curve.lines[1], {{0.5, 0.6}, {0.6, 0.7}});
  expectPoints(curve.singles, {{0.3, 0.4}});
  EXPECT_EQ(curve.points.size(), 5U);
}

TEST(CutToFrame, PlacesThatAreNotFiniteInterruptToo) {
  VisibleCurve const curve = cutToFrame(Values{0, -infinity, 2}, Values{1, 2, 3}, toTen, toTen);
  EXPECT_TRUE(curve.lines.empty());
  expectPoints(curve.singles, {{0.0, 0.1}, {0.2, 0.3}});
}

TEST(CutToFrame, HugeValuesAreCutLikeOthers) {
  VisibleCurve const curve = cutToFrame(Values{1, 1, 2}, Values{5, 1.7e308, -1.7e308}, toTen, toTen);
  ASSERT_EQ(curve.lines.size(), 2U);
  expectPoints(curve.lines[0], {{0.1, 0.5}, {0.1, 1.0}});
  // Between the two the line comes down at x = 1.5.
  expectPoints(curve.lines[1], {{0.15, 1.0}, {0.15, 0.0}});
}

TEST(CutToFrame, OneValueIsASingle) {
  expectPoints(cutToFrame(Values{5}, Values{5}, toTen, toTen).singles, {{0.5, 0.5}});
  EXPECT_TRUE(cutToFrame(Values{5}, Values{50}, toTen, toTen).singles.empty());
}

TEST(CutToFrame, NoValuesGiveNothing) {
  VisibleCurve const curve = cutToFrame(Values{}, Values{}, toTen, toTen);
  EXPECT_TRUE(curve.lines.empty() && curve.points.empty() && curve.singles.empty());
}

TEST(CutToFrame, SurplusValuesAreLeftOut) {
  EXPECT_EQ(cutToFrame(Values{1, 2, 3}, Values{1, 2}, toTen, toTen).points.size(), 2U);
}

}  // namespace
}  // namespace OrvikPDF
