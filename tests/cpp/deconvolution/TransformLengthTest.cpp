#include <fullwaveform/deconvolution/TransformLength.h>

#include <cstdint>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

bool hasSmallFactors(std::uint32_t length) {
  for (std::uint32_t const factor : {2U, 3U, 5U, 7U}) {
    while (length % factor == 0) {
      length /= factor;
    }
  }
  return length == 1;
}

TEST(FastTransformLength, IsEvenLongEnoughAndHasSmallFactors) {
  for (std::uint32_t minLength = 1; minLength < 20000; ++minLength) {
    std::uint32_t const length = fastTransformLength(minLength);
    ASSERT_GE(length, minLength);
    EXPECT_TRUE(hasSmallFactors(length)) << length;
    EXPECT_EQ(length % 2, 0U) << length;
    EXPECT_LE(length, minLength <= 32 ? 32 : minLength + minLength / 3) << minLength;
  }
}

TEST(FastTransformLength, KeepsAFastLength) {
  for (std::uint32_t const length : {32U, 180U, 320U, 576U, 2048U, 2560U, 4096U, 1U << 30U}) {
    EXPECT_EQ(fastTransformLength(length), length);
  }
}

TEST(FastTransformLength, LengthsOfThePlanesAreRoundedUp) {
  EXPECT_EQ(fastTransformLength(176), 180U);
  EXPECT_EQ(fastTransformLength(301), 320U);
  EXPECT_EQ(fastTransformLength(426), 448U);
  EXPECT_EQ(fastTransformLength(1051), 1152U);
  EXPECT_EQ(fastTransformLength(2049), 2560U);
}

TEST(FastTransformLength, ReturnsInvalidLengthsUnchanged) {
  EXPECT_EQ(fastTransformLength(0), 0U);
  EXPECT_EQ(fastTransformLength((1U << 30U) + 1U), (1U << 30U) + 1U);
  EXPECT_EQ(fastTransformLength(4294967295U), 4294967295U);
}

}  // namespace
}  // namespace FullWaveform
