#include <fullwaveform/driver/ChannelMerge.h>

#include <cmath>
#include <limits>
#include <list>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Echoes = std::vector<std::pair<double, double>>;  // time in s, amplitude in counts

std::list<Peak> listOf(Echoes const& echoes) {
  std::list<Peak> peaks;
  for (auto const& [time, amplitude] : echoes) {
    peaks.emplace_back(amplitude, 0.0, time, GAUSS_3POINTS, GOOD, 1.0, static_cast<unsigned char>(0), 0.0F);
  }
  return peaks;
}

Echoes echoesOf(std::list<Peak> const& peaks) {
  Echoes echoes;
  for (Peak const& peak : peaks) {
    echoes.emplace_back(peak.time, peak.amplitude);
  }
  return echoes;
}

/// What is left of both channels, with a sampling interval of 1 s.
std::pair<Echoes, Echoes> merged(Echoes const& normal, Echoes const& lowPower) {
  std::list<Peak> a = listOf(normal);
  std::list<Peak> b = listOf(lowPower);
  mergeChannels(a, b, 1.0);
  return {echoesOf(a), echoesOf(b)};
}

TEST(ChannelMerge, LowPowerCopyStays) {
  auto const [normal, lowPower] = merged({{10.0, 500.0}}, {{11.0, 300.0}});
  EXPECT_EQ(normal, Echoes{});
  EXPECT_EQ(lowPower, (Echoes{{11.0, 300.0}}));
}

TEST(ChannelMerge, SaturatedLowPowerCopyGoes) {
  auto const [normal, lowPower] = merged({{10.0, 500.0}}, {{11.0, 3500.0}});
  EXPECT_EQ(normal, (Echoes{{10.0, 500.0}}));
  EXPECT_EQ(lowPower, Echoes{});
}

TEST(ChannelMerge, ThreeThousandCountsAreNotSaturated) {
  auto const atLimit = merged({{10.0, 500.0}}, {{10.0, 3000.0}});
  EXPECT_EQ(atLimit.first, Echoes{});
  EXPECT_EQ(atLimit.second, (Echoes{{10.0, 3000.0}}));
  auto const above = merged({{10.0, 500.0}}, {{10.0, 3000.5}});
  EXPECT_EQ(above.first, (Echoes{{10.0, 500.0}}));
  EXPECT_EQ(above.second, Echoes{});
}

TEST(ChannelMerge, OwnAmplitudeOfTheNormalCopyDoesNotMatter) {
  auto const [normal, lowPower] = merged({{10.0, 4000.0}}, {{10.0, 300.0}});
  EXPECT_EQ(normal, Echoes{});
  EXPECT_EQ(lowPower.size(), 1U);
}

TEST(ChannelMerge, ThreeIntervalsApartAreTwoEchoes) {
  for (double const distance : {3.0, -3.0}) {
    auto const [normal, lowPower] = merged({{10.0, 500.0}}, {{10.0 + distance, 300.0}});
    EXPECT_EQ(normal.size(), 1U);
    EXPECT_EQ(lowPower.size(), 1U);
  }
}

TEST(ChannelMerge, JustBelowThreeIntervalsApartIsOneEcho) {
  EXPECT_EQ(merged({{0.0, 500.0}}, {{std::nextafter(3.0, 0.0), 300.0}}).first, Echoes{});
  EXPECT_EQ(merged({{0.0, 500.0}}, {{std::nextafter(-3.0, 0.0), 300.0}}).first, Echoes{});
}

TEST(ChannelMerge, SaturatedEchoWithoutCounterpartStays) {
  auto const [normal, lowPower] = merged({{10.0, 500.0}}, {{20.0, 3500.0}});
  EXPECT_EQ(normal.size(), 1U);
  EXPECT_EQ(lowPower.size(), 1U);
}

TEST(ChannelMerge, ChannelWithoutEchoesChangesNothing) {
  EXPECT_EQ(merged({}, {{10.0, 3500.0}}).second.size(), 1U);
  EXPECT_EQ(merged({{10.0, 500.0}}, {}).first.size(), 1U);
}

// The saturated echo at 10 goes first; the one at 12 then removes both of the normal channel.
TEST(ChannelMerge, SaturatedEchoesGoBeforeTheNormalChannelIsCleaned) {
  auto const [normal, lowPower] = merged({{10.0, 500.0}, {14.0, 600.0}}, {{12.0, 300.0}, {10.0, 3500.0}});
  EXPECT_EQ(normal, Echoes{});
  EXPECT_EQ(lowPower, (Echoes{{12.0, 300.0}}));
}

TEST(ChannelMerge, EveryEchoIsJudgedByItself) {
  auto const [normal, lowPower] = merged({{0.0, 1.0}, {10.0, 2.0}, {20.0, 3.0}, {30.0, 4.0}},
                                         {{1.0, 100.0}, {11.0, 3001.0}, {22.9, 200.0}, {40.0, 300.0}});
  EXPECT_EQ(normal, (Echoes{{10.0, 2.0}, {30.0, 4.0}}));
  EXPECT_EQ(lowPower, (Echoes{{1.0, 100.0}, {22.9, 200.0}, {40.0, 300.0}}));
}

TEST(ChannelMerge, NotANumberMatchesNothing) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(merged({{nan, 500.0}}, {{10.0, 300.0}}).first.size(), 1U);
  EXPECT_EQ(merged({{10.0, 500.0}}, {{10.0, nan}}).first.size(), 1U);
  EXPECT_EQ(merged({{10.0, 500.0}}, {{10.0, nan}}).second.size(), 1U);
}

TEST(ChannelMerge, ReachFollowsTheSamplingInterval) {
  std::list<Peak> normal = listOf({{0.0, 500.0}});
  std::list<Peak> lowPower = listOf({{1.5, 300.0}});
  mergeChannels(normal, lowPower, 0.5);
  EXPECT_EQ(normal.size(), 1U);
  mergeChannels(normal, lowPower, 0.51);
  EXPECT_EQ(normal.size(), 0U);
}

TEST(ChannelMerge, WithoutIntervalNothingIsTheSame) {
  std::list<Peak> normal = listOf({{1.0, 500.0}});
  std::list<Peak> lowPower = listOf({{1.0, 300.0}});
  mergeChannels(normal, lowPower, 0.0);
  EXPECT_EQ(normal.size(), 1U);
  EXPECT_EQ(lowPower.size(), 1U);
}

}  // namespace
}  // namespace FullWaveform
