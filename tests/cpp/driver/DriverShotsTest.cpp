#include <cstdint>
#include <set>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

/// Sampling interval that makes every time below exact, s.
constexpr double interval = 1.0 / 1073741824.0;

class DriverShots : public testing::Test {
 protected:
  ShotMap run(std::vector<Row> const& rows) { return blockOf(rows).run(driver); }
  std::uint32_t duplicates() const { return driver.lastBlock().statistics.duplicates; }

  TemporaryDirectory directory;
  Driver driver{FWFModus::ThreePoint, scannerOf({.samplingTime = interval}), directory.path(), "scan01.rxp",
                200U};
};

std::vector<unsigned short> strongest(Shot const& shot) {
  std::vector<unsigned short> found;
  for (WavePtr const& wave : shot.waves) {
    found.push_back(wave->maxAmplitude);
  }
  return found;
}

std::vector<std::uint64_t> echoCounts(Shot const& shot) {
  std::vector<std::uint64_t> found;
  for (WavePtr const& wave : shot.waves) {
    found.push_back(wave->size());
  }
  return found;
}

using Strongest = std::vector<unsigned short>;
using EchoCounts = std::vector<std::uint64_t>;

/// A waveform with an echo of `top` counts at `index`.
Samples echoAt(std::size_t index, unsigned short top) {
  auto const half = static_cast<unsigned short>(top / 2);
  return waveformOf(40, 5, {{index - 1, {half, top, half}}});
}

TEST_F(DriverShots, AreSortedByTimeForAnyOrderOfRows) {
  ShotMap const shots = run({{echoOf(200), 3.0}, {echoOf(300), 1.0}, {echoOf(400), 2.0}});
  std::vector<double> times;
  for (auto const& [time, shot] : shots) {
    times.push_back(time);
  }
  EXPECT_EQ(times, (std::vector<double>{1.0, 2.0, 3.0}));
  EXPECT_EQ(strongest(shots.at(1.0)), Strongest{300});
}

TEST_F(DriverShots, WaveformsOfEqualTimeAreOneShotInOrderOfArrival) {
  ShotMap const shots = run({{echoOf(400), 1.0}, {echoOf(200), 1.0}, {echoOf(300), 1.0}});
  ASSERT_EQ(shots.size(), 1U);
  EXPECT_EQ(strongest(shots.at(1.0)), (Strongest{400, 200, 300}));
}

// Samples 0, 3, 6 ... of 20: seven samples; the rising half of the echo at index 9 is one of them.
TEST_F(DriverShots, SignatureIsTheSumOfEveryThirdSample) {
  ShotMap const shots = run({{echoOf(200), 1.0}});
  EXPECT_EQ(shots.at(1.0).signatures, (std::set<std::uint32_t>{6 * 5 + 100}));
}

TEST_F(DriverShots, SignatureStopsAtTheSampleCount) {
  Samples const nineteen = waveformOf(19, 5, {{9, {100, 200, 100}}});
  Samples const twentyOne = waveformOf(21, 5, {{9, {100, 200, 100}}});
  ShotMap const shots = run({{nineteen, 1.0}, {twentyOne, 2.0}, {waveformOf(22, 5, {{9, {100, 200}}}), 3.0}});
  EXPECT_EQ(shots.at(1.0).signatures, (std::set<std::uint32_t>{130}));
  EXPECT_EQ(shots.at(2.0).signatures, (std::set<std::uint32_t>{130}));
  EXPECT_EQ(shots.at(3.0).signatures, (std::set<std::uint32_t>{135}));
}

TEST_F(DriverShots, DuplicateIsSkipped) {
  ShotMap const shots = run({{echoOf(200), 1.0}, {echoOf(200), 1.0}, {echoOf(200), 1.0}});
  EXPECT_EQ(shots.at(1.0).waves.size(), 1U);
  EXPECT_EQ(duplicates(), 2U);
}

TEST_F(DriverShots, DifferentSamplesWithEqualSignatureAreSkipped) {
  Samples other = echoOf(200);
  other[10] = 220;
  other[11] = 110;
  ShotMap const shots = run({{echoOf(200), 1.0}, {other, 1.0}});
  EXPECT_EQ(strongest(shots.at(1.0)), Strongest{200});
  EXPECT_EQ(duplicates(), 1U);
}

TEST_F(DriverShots, DuplicateInTheOtherChannelIsSkipped) {
  EXPECT_EQ(run({{echoOf(200), 1.0, 0}, {echoOf(200), 1.0, 1}}).at(1.0).waves.size(), 1U);
  EXPECT_EQ(duplicates(), 1U);
}

TEST_F(DriverShots, DifferenceInEveryThirdSampleIsNoDuplicate) {
  Samples other = echoOf(200);
  other[18] = 6;
  EXPECT_EQ(run({{echoOf(200), 1.0}, {other, 1.0}}).at(1.0).waves.size(), 2U);
  EXPECT_EQ(duplicates(), 0U);
}

TEST_F(DriverShots, EqualWaveformInAnotherShotIsKept) {
  EXPECT_EQ(run({{echoOf(200), 1.0}, {echoOf(200), 2.0}}).size(), 2U);
  EXPECT_EQ(duplicates(), 0U);
}

TEST_F(DriverShots, EqualWaveformInAnotherBlockIsKept) {
  run({{echoOf(200), 1.0}});
  EXPECT_EQ(run({{echoOf(200), 1.0}}).size(), 1U);
  EXPECT_EQ(duplicates(), 0U);
}

TEST_F(DriverShots, WaveformBelowTheThresholdHasNoSignature) {
  ShotMap const shots = run({{noSignal(), 1.0}, {noSignal(), 1.0}, {echoOf(200), 2.0}});
  EXPECT_EQ(shots.size(), 1U);
  EXPECT_EQ(duplicates(), 0U);
  EXPECT_EQ(driver.lastBlock().statistics.signalTooLow, 2U);
}

TEST_F(DriverShots, BothChannelsMergeIntoTheLowPowerOne) {
  ShotMap const shots = run({{echoOf(600), 1.0, 0}, {echoOf(200), 1.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{0, 1}));
}

TEST_F(DriverShots, OrderOfTheChannelsDoesNotMatter) {
  ShotMap const shots = run({{echoOf(200), 1.0, 1}, {echoOf(600), 1.0, 0}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{1, 0}));
}

TEST_F(DriverShots, SaturatedLowPowerEchoIsRemoved) {
  ShotMap const shots = run({{echoOf(600), 1.0, 0}, {echoOf(3400), 1.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{1, 0}));
}

TEST_F(DriverShots, AmplitudesAreComparedInCountsNotDecibels) {
  // 3400 counts are 30.6 dB, far below 3000.
  ShotMap const shots = run({{echoOf(3400), 1.0, 0}, {echoOf(2800), 1.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{0, 1}));
}

TEST_F(DriverShots, OneChannelIsNotMerged) {
  EXPECT_EQ(echoCounts(run({{echoOf(600), 1.0, 0}, {echoOf(200), 1.0, 0}}).at(1.0)), (EchoCounts{1, 1}));
  EXPECT_EQ(echoCounts(run({{echoOf(600), 1.0, 1}, {echoOf(200), 1.0, 1}}).at(1.0)), (EchoCounts{1, 1}));
}

TEST_F(DriverShots, DifferentShotsAreNotMerged) {
  ShotMap const shots = run({{echoOf(600), 1.0, 0}, {echoOf(200), 2.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), EchoCounts{1});
  EXPECT_EQ(echoCounts(shots.at(2.0)), EchoCounts{1});
}

TEST_F(DriverShots, AllFlagsExceptZeroAreMergedAsLowPower) {
  ShotMap const shots = run({{echoOf(600), 1.0, 0}, {echoOf(200), 1.0, 2}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{0, 1}));
  EXPECT_FALSE(shots.at(1.0).waves[1]->isLowPower);
  EXPECT_EQ(echoCounts(run({{echoOf(600), 1.0, 1}, {echoOf(200), 1.0, 255}}).at(1.0)), (EchoCounts{1, 1}));
}

TEST_F(DriverShots, EchoesThreeIntervalsApartAreNotMerged) {
  EXPECT_EQ(echoCounts(run({{echoAt(10, 600), 1.0, 0}, {echoAt(13, 200), 1.0, 1}}).at(1.0)),
            (EchoCounts{1, 1}));
  EXPECT_EQ(echoCounts(run({{echoAt(10, 600), 1.0, 0}, {echoAt(12, 200), 1.0, 1}}).at(1.0)),
            (EchoCounts{0, 1}));
}

TEST_F(DriverShots, TimesNotPositionsAreCompared) {
  // Position 10 in a waveform that starts five intervals later is position 15 in the other.
  Row const late{echoAt(10, 200), 1.0, 1, 5.0 * interval};
  EXPECT_EQ(echoCounts(run({{echoAt(10, 600), 1.0, 0}, late}).at(1.0)), (EchoCounts{1, 1}));
  EXPECT_EQ(echoCounts(run({{echoAt(15, 600), 1.0, 0}, late}).at(1.0)), (EchoCounts{0, 1}));
}

// The high-power echo is removed in favour of the first low-power one; the saturated one has no counterpart
// left.
TEST_F(DriverShots, UnsaturatedPairFirstKeepsTheSaturatedEcho) {
  ShotMap const shots = run({{echoOf(600), 1.0, 0}, {echoOf(200), 1.0, 1}, {echoOf(3400), 1.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{0, 1, 1}));
}

// The saturated echo is removed first; the high-power echo is then removed in favour of the second one.
TEST_F(DriverShots, SaturatedPairFirstRemovesTheSaturatedEcho) {
  ShotMap const shots = run({{echoOf(600), 1.0, 0}, {echoOf(3400), 1.0, 1}, {echoOf(200), 1.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{0, 0, 1}));
}

TEST_F(DriverShots, EveryHighPowerWaveformIsMergedWithEveryLowPowerOne) {
  ShotMap const shots = run({{echoAt(10, 600), 1.0, 0},
                             {echoAt(20, 500), 1.0, 0},
                             {waveformOf(40, 5, {{10, {100, 200, 100}}, {19, {150, 300, 150}}}), 1.0, 1}});
  EXPECT_EQ(echoCounts(shots.at(1.0)), (EchoCounts{0, 0, 2}));
}

}  // namespace
}  // namespace FullWaveform
