#include <array>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <native/samples/PlaceBounds.h>

namespace {

using Values = std::vector<double>;
using Counts = std::vector<std::uint16_t>;

// 3 samples of 1 ns: 2000 ps from the first to the last one. The first lies 1000 ps before the anchor.
TEST(PlaceBounds, BoxAroundFirstAndLastSamples) {
  PlaceBounds bounds;
  Values const anchors{10.0, 20.0, 30.0};
  Values const locations{1000.0};
  Values const directions{0.5, 0.0, -0.25};
  Values const intervals{1e-9};
  bounds.add({anchors, locations, directions, intervals, Counts{3}});
  EXPECT_DOUBLE_EQ(bounds.upper()[0], 510.0);
  EXPECT_DOUBLE_EQ(bounds.lower()[0], -490.0);
  EXPECT_DOUBLE_EQ(bounds.upper()[1], 20.0);
  EXPECT_DOUBLE_EQ(bounds.lower()[1], 20.0);
  EXPECT_DOUBLE_EQ(bounds.lower()[2], -220.0);
  EXPECT_DOUBLE_EQ(bounds.upper()[2], 280.0);
}

TEST(PlaceBounds, PlacesThatAreNotFiniteAreLeftOut) {
  PlaceBounds bounds;
  double const nan = std::numeric_limits<double>::quiet_NaN();
  bounds.add(
      {Values{nan, 0.0, 0.0, 1.0, 2.0, 3.0}, Values{0.0, 0.0}, Values(6), Values{1e-9, 1e-9}, Counts{2, 2}});
  EXPECT_EQ(bounds.lower(), (PlaceBounds::Place{1.0, 2.0, 3.0}));
  EXPECT_EQ(bounds.upper(), (PlaceBounds::Place{1.0, 2.0, 3.0}));
}

TEST(PlaceBounds, WithoutPlacesTheBoxIsEmpty) {
  PlaceBounds const bounds;
  EXPECT_GT(bounds.lower()[0], bounds.upper()[0]);
}

TEST(PlaceBounds, RefusesColumnsOfDifferentLength) {
  PlaceBounds bounds;
  EXPECT_THROW(bounds.add({Values(3), Values(1), Values(3), Values(2), Counts(1)}), std::invalid_argument);
}

}  // namespace
