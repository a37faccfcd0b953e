#include <fullwaveform/driver/Decibel.h>

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

TEST(Decibel, PowersOfTen) {
  EXPECT_FLOAT_EQ(toDecibel(10.0, 1.0), 20.0F);
  EXPECT_FLOAT_EQ(toDecibel(1000.0, 0.1), 40.0F);
  EXPECT_FLOAT_EQ(toDecibel(200.0, 0.01), 6.0205999F);  // 20 log10 2
}

// log10(1.0001) = 4.34272769e-5
TEST(Decibel, LimitItselfIsConverted) {
  EXPECT_FLOAT_EQ(toDecibel(1.0001, 1.0), 8.6854554e-4F);
  EXPECT_GT(toDecibel(1.0001, 1.0), 0.0F);
}

TEST(Decibel, BelowTheLimitIsExactlyZero) {
  EXPECT_EQ(toDecibel(1.0, 1.0), 0.0F);
  EXPECT_EQ(toDecibel(std::nextafter(1.0001, 0.0), 1.0), 0.0F);
  EXPECT_EQ(toDecibel(0.5, 1.0), 0.0F);
  EXPECT_EQ(toDecibel(0.0, 1.0), 0.0F);
  EXPECT_EQ(toDecibel(-10.0, 1.0), 0.0F);
}

TEST(Decibel, HundredCountsAreZeroInTheDefaultUnit) {
  EXPECT_EQ(toDecibel(100.0, 0.009999999776482582), 0.0F);
  EXPECT_GT(toDecibel(101.0, 0.009999999776482582), 0.0F);
}

TEST(Decibel, NaNGivesNaN) {
  EXPECT_TRUE(std::isnan(toDecibel(std::numeric_limits<double>::quiet_NaN(), 1.0)));
}

}  // namespace
}  // namespace FullWaveform
