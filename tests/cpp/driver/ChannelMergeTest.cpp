#include <fullwaveform/driver/ChannelMerge.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Echoes = std::vector<std::pair<double, double>>;  // time in s, amplitude in counts

/// Echoes of a waveform in arrays of their own.
class Waveform {
 public:
  explicit Waveform(Echoes const& echoes) : removed(echoes.size()) {
    for (auto const& [time, amplitude] : echoes) {
      times.push_back(time);
      amplitudes.push_back(static_cast<float>(amplitude));
    }
  }

  MergeEchoes view() { return {times, amplitudes, removed}; }

  [[nodiscard]] Echoes kept() const {
    Echoes echoes;
    for (std::size_t i = 0; i < times.size(); ++i) {
      if (removed[i] == 0) {
        echoes.emplace_back(times[i], amplitudes[i]);
      }
    }
    return echoes;
  }

 private:
  std::vector<double> times;
  std::vector<float> amplitudes;
  std::vector<std::uint8_t> removed;
};

/// Both channels after merging.
std::pair<Echoes, Echoes> merged(Echoes const& highPower, Echoes const& lowPower,
                                 double samplingInterval = 1.0) {
  Waveform a(highPower);
  Waveform b(lowPower);
  mergeChannels(a.view(), b.view(), samplingInterval);
  return {a.kept(), b.kept()};
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
  EXPECT_EQ(merged({{0.0, 500.0}}, {{1.5, 300.0}}, 0.5).first.size(), 1U);
  EXPECT_EQ(merged({{0.0, 500.0}}, {{1.5, 300.0}}, 0.51).first.size(), 0U);
}

TEST(ChannelMerge, SamplingIntervalOfZeroMergesNoEchoes) {
  auto const [highPower, lowPower] = merged({{1.0, 500.0}}, {{1.0, 300.0}}, 0.0);
  EXPECT_EQ(highPower.size(), 1U);
  EXPECT_EQ(lowPower.size(), 1U);
}

// A saturated echo stays while no high-power echo is near it: the only one was removed with the first
// waveform.
TEST(ChannelMerge, RemovedEchoesTakeNoPartInLaterPairs) {
  ShotEchoes shot;
  shot.startWaveform(true);
  shot.add(10.0, 500.0F);
  shot.startWaveform(false);
  shot.add(11.0, 300.0F);
  shot.startWaveform(false);
  shot.add(10.0, 3500.0F);
  WorkMeter work;
  shot.merge(1.0, work);
  EXPECT_TRUE(shot.isRemoved(0));
  EXPECT_FALSE(shot.isRemoved(1));
  EXPECT_FALSE(shot.isRemoved(2));
}

}  // namespace
}  // namespace FullWaveform
