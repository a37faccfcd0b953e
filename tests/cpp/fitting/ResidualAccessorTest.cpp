#include <fullwaveform/fitting/ResidualAccessor.h>

#include <limits>
#include <list>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

Peak echo(double amplitude, double idx, double std) {
  return {amplitude, idx, 0.0, GAUSS_DECOMPOSITION_1, GOOD, std, 0, 0.0F};
}

/// Residual of a sample with a noise of 20 counts and the given echoes.
unsigned residualOf(unsigned short sample, double index, std::list<Peak> const& peaks) {
  WavePtr const wave(new WavePoints<unsigned short>());
  wave->noise = 20;
  return ResidualAccessor{peaks, wave}(sample, index);
}

TEST(ResidualAccessor, WithoutEchoesTheNoiseIsSubtracted) {
  EXPECT_EQ(residualOf(500, 3.0, {}), 480U);
  EXPECT_EQ(residualOf(65535, 3.0, {}), 65515U);
}

TEST(ResidualAccessor, ResidualIsAtLeastOneCount) {
  EXPECT_EQ(residualOf(22, 3.0, {}), 2U);
  EXPECT_EQ(residualOf(21, 3.0, {}), 1U);
  EXPECT_EQ(residualOf(20, 3.0, {}), 1U);
  EXPECT_EQ(residualOf(0, 3.0, {}), 1U);
  EXPECT_EQ(residualOf(500, 10.0, {echo(4000.0, 10.0, 2.0)}), 1U);
}

TEST(ResidualAccessor, EchoesAreSubtractedAndTruncated) {
  // 480 - 100 exp(-1/2) = 419.35; 480 - 100 exp(-1/8) = 391.75
  EXPECT_EQ(residualOf(500, 10.0, {echo(100.0, 10.0, 2.0)}), 380U);
  EXPECT_EQ(residualOf(500, 12.0, {echo(100.0, 10.0, 2.0)}), 419U);
  EXPECT_EQ(residualOf(500, 9.0, {echo(100.0, 10.0, 2.0)}), 391U);
  EXPECT_EQ(residualOf(500, 10.0, {echo(100.0, 10.0, 2.0), echo(200.0, 12.0, 2.0)}), 258U);  // 480 - 221.3
}

TEST(ResidualAccessor, NegativeEchoAdds) {
  EXPECT_EQ(residualOf(500, 10.0, {echo(-100.0, 10.0, 2.0)}), 580U);
}

TEST(ResidualAccessor, EchoesWithoutPositiveWidthAreIgnored) {
  EXPECT_EQ(residualOf(500, 10.0, {echo(100.0, 10.0, 0.0)}), 480U);
  EXPECT_EQ(residualOf(500, 10.0, {echo(100.0, 10.0, -2.0)}), 480U);
  EXPECT_EQ(residualOf(500, 10.0, {echo(nan, nan, nan)}), 480U);
}

TEST(ResidualAccessor, NanAmplitudeOrPositionGivesZero) {
  EXPECT_EQ(residualOf(500, 10.0, {echo(nan, 10.0, 2.0)}), 0U);
  EXPECT_EQ(residualOf(500, 10.0, {echo(100.0, nan, 2.0)}), 0U);
}

TEST(ResidualAccessor, HoldsACopyOfTheEchoes) {
  std::list<Peak> peaks{echo(100.0, 10.0, 2.0)};
  WavePtr const wave(new WavePoints<unsigned short>());
  ResidualAccessor const residual{peaks, wave};
  peaks.push_back(echo(100.0, 10.0, 2.0));
  EXPECT_EQ(residual(500, 10.0), 500 - 100);
}

}  // namespace
}  // namespace FullWaveform
