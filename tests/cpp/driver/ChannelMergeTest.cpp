#include <fullwaveform/driver/ChannelMerge.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <list>
#include <random>
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

/// Both channels after merging, with a sampling interval of 1 s.
std::pair<Echoes, Echoes> merged(Echoes const& highPower, Echoes const& lowPower) {
  std::list<Peak> a = listOf(highPower);
  std::list<Peak> b = listOf(lowPower);
  mergeChannels(a, b, 1.0);
  return {echoesOf(a), echoesOf(b)};
}

TEST(ChannelMerge, LowPowerCopyIsKept) {
  auto const [highPower, lowPower] = merged({{10.0, 500.0}}, {{11.0, 300.0}});
  EXPECT_EQ(highPower, Echoes{});
  EXPECT_EQ(lowPower, (Echoes{{11.0, 300.0}}));
}

TEST(ChannelMerge, SaturatedLowPowerCopyIsRemoved) {
  auto const [highPower, lowPower] = merged({{10.0, 500.0}}, {{11.0, 3500.0}});
  EXPECT_EQ(highPower, (Echoes{{10.0, 500.0}}));
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

TEST(ChannelMerge, AmplitudeOfTheHighPowerCopyIsNotUsed) {
  auto const [highPower, lowPower] = merged({{10.0, 4000.0}}, {{10.0, 300.0}});
  EXPECT_EQ(highPower, Echoes{});
  EXPECT_EQ(lowPower.size(), 1U);
}

TEST(ChannelMerge, EchoesThreeIntervalsApartAreKept) {
  for (double const distance : {3.0, -3.0}) {
    auto const [highPower, lowPower] = merged({{10.0, 500.0}}, {{10.0 + distance, 300.0}});
    EXPECT_EQ(highPower.size(), 1U);
    EXPECT_EQ(lowPower.size(), 1U);
  }
}

TEST(ChannelMerge, EchoesLessThanThreeIntervalsApartAreOne) {
  EXPECT_EQ(merged({{0.0, 500.0}}, {{std::nextafter(3.0, 0.0), 300.0}}).first, Echoes{});
  EXPECT_EQ(merged({{0.0, 500.0}}, {{std::nextafter(-3.0, 0.0), 300.0}}).first, Echoes{});
}

TEST(ChannelMerge, SaturatedEchoWithoutCounterpartIsKept) {
  auto const [highPower, lowPower] = merged({{10.0, 500.0}}, {{20.0, 3500.0}});
  EXPECT_EQ(highPower.size(), 1U);
  EXPECT_EQ(lowPower.size(), 1U);
}

TEST(ChannelMerge, EmptyChannelLeavesTheOtherUnchanged) {
  EXPECT_EQ(merged({}, {{10.0, 3500.0}}).second.size(), 1U);
  EXPECT_EQ(merged({{10.0, 500.0}}, {}).first.size(), 1U);
}

// The saturated echo at 10 is removed first; the one at 12 then removes both high-power echoes.
TEST(ChannelMerge, SaturatedEchoesAreRemovedFirst) {
  auto const [highPower, lowPower] = merged({{10.0, 500.0}, {14.0, 600.0}}, {{12.0, 300.0}, {10.0, 3500.0}});
  EXPECT_EQ(highPower, Echoes{});
  EXPECT_EQ(lowPower, (Echoes{{12.0, 300.0}}));
}

TEST(ChannelMerge, EveryPairIsComparedSeparately) {
  auto const [highPower, lowPower] = merged({{0.0, 1.0}, {10.0, 2.0}, {20.0, 3.0}, {30.0, 4.0}},
                                            {{1.0, 100.0}, {11.0, 3001.0}, {22.9, 200.0}, {40.0, 300.0}});
  EXPECT_EQ(highPower, (Echoes{{10.0, 2.0}, {30.0, 4.0}}));
  EXPECT_EQ(lowPower, (Echoes{{1.0, 100.0}, {22.9, 200.0}, {40.0, 300.0}}));
}

TEST(ChannelMerge, NaNMatchesNoEcho) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(merged({{nan, 500.0}}, {{10.0, 300.0}}).first.size(), 1U);
  EXPECT_EQ(merged({{10.0, 500.0}}, {{10.0, nan}}).first.size(), 1U);
  EXPECT_EQ(merged({{10.0, 500.0}}, {{10.0, nan}}).second.size(), 1U);
}

TEST(ChannelMerge, ManyUnorderedEchoesAreMergedAsByComparingAll) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> time(0, 400);
  std::uniform_int_distribution<int> amplitude(2900, 3100);
  for (int scene = 0; scene < 200; ++scene) {
    std::vector<std::pair<double, double>> high;
    std::vector<std::pair<double, double>> low;
    for (int i = 0; i < 20; ++i) {
      high.emplace_back(0.5 * time(rng), amplitude(rng));
      low.emplace_back(0.5 * time(rng), amplitude(rng));
    }
    auto const isNear = [](double time, auto const& others, double maxAmplitude) {
      return std::any_of(others.begin(), others.end(), [&](auto const& other) {
        return std::abs(other.first - time) < 3.0 && other.second <= maxAmplitude;
      });
    };
    auto const keptLow = std::count_if(low.begin(), low.end(), [&](auto const& echo) {
      return echo.second <= 3000.0 || !isNear(echo.first, high, 1e9);
    });
    auto const keptHigh = std::count_if(high.begin(), high.end(),
                                        [&](auto const& echo) { return !isNear(echo.first, low, 3000.0); });
    auto const [mergedHigh, mergedLow] = merged(high, low);
    EXPECT_EQ(mergedHigh.size(), static_cast<std::size_t>(keptHigh)) << scene;
    EXPECT_EQ(mergedLow.size(), static_cast<std::size_t>(keptLow)) << scene;
  }
}

TEST(ChannelMerge, DistanceIsInSamplingIntervals) {
  std::list<Peak> highPower = listOf({{0.0, 500.0}});
  std::list<Peak> lowPower = listOf({{1.5, 300.0}});
  mergeChannels(highPower, lowPower, 0.5);
  EXPECT_EQ(highPower.size(), 1U);
  mergeChannels(highPower, lowPower, 0.51);
  EXPECT_EQ(highPower.size(), 0U);
}

TEST(ChannelMerge, SamplingIntervalOfZeroMergesNoEchoes) {
  std::list<Peak> highPower = listOf({{1.0, 500.0}});
  std::list<Peak> lowPower = listOf({{1.0, 300.0}});
  mergeChannels(highPower, lowPower, 0.0);
  EXPECT_EQ(highPower.size(), 1U);
  EXPECT_EQ(lowPower.size(), 1U);
}

}  // namespace
}  // namespace FullWaveform
