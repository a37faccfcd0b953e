#include <fullwaveform/host/DataRange.h>

#include <cstddef>
#include <limits>
#include <span>
#include <vector>

#include <gtest/gtest.h>

namespace Kestra {
namespace {

using Range = DataRange<double>;

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

void expectRange(std::vector<double> const& values, double minimum, double maximum) {
  Range const range{std::span<double const>(values)};
  EXPECT_EQ(range.minimum(), minimum);
  EXPECT_EQ(range.maximum(), maximum);
}

TEST(DataRange, KeepsTheGivenBounds) {
  Range const range(-2.0, 7.5);
  EXPECT_EQ(range.minimum(), -2.0);
  EXPECT_EQ(range.maximum(), 7.5);
}

TEST(DataRange, FindsSmallestAndLargest) {
  expectRange({3.0, -1.0, 2.0, 8.0, 0.5}, -1.0, 8.0);
  expectRange({-5.0, -3.0}, -5.0, -3.0);
}

TEST(DataRange, OneValueIsBothBounds) {
  expectRange({4.25}, 4.25, 4.25);
}

TEST(DataRange, WithoutValuesIsZeroToZero) {
  expectRange({}, 0.0, 0.0);
}

TEST(DataRange, NaNIsIgnored) {
  expectRange({NaN, 2.0, NaN, 1.0, NaN}, 1.0, 2.0);
  expectRange({NaN, NaN}, 0.0, 0.0);
}

TEST(DataRange, InfinitiesAreIncluded) {
  expectRange({1.0, infinity}, 1.0, infinity);
  expectRange({-infinity, 1.0}, -infinity, 1.0);
  expectRange({infinity}, infinity, infinity);
}

TEST(DataRange, ExtremesOfALongSeriesAreFoundAtAnyPosition) {
  constexpr std::size_t count = 10007;
  for (std::size_t const position : {std::size_t{0}, std::size_t{1}, count / 2, count - 1}) {
    std::vector<double> values(count, 5.0);
    values[position] = 9.0;
    values[(position + 17) % count] = -9.0;
    expectRange(values, -9.0, 9.0);
  }
}

}  // namespace
}  // namespace Kestra
