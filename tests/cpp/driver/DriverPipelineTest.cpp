#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

using namespace Testing;

class DriverPipeline : public testing::Test {
 protected:
  Driver driverOf(ScannerValues const& values = {}, std::uint32_t modus = 0) {
    return {static_cast<FWFModus>(modus), scannerOf(values), directory.path(), "scan01.rxp", 200U};
  }
  /// The only waveform of a block of one row.
  WavePtr single(Row const& row, ScannerValues const& values = {}, int noise = 20) {
    Driver driver = driverOf(values);
    ShotMap const shots = blockOf({row}).run(driver, noise);
    EXPECT_EQ(shots.size(), 1U);
    return shots.empty() ? WavePtr() : shots.begin()->second.waves.at(0);
  }

  TemporaryDirectory directory;
};

std::vector<double> positions(WavePtr const& wave) {
  std::vector<double> found;
  for (Peak const& peak : wave->peaks) {
    found.push_back(peak.idx);
  }
  return found;
}

using Positions = std::vector<double>;

TEST_F(DriverPipeline, ConstructorStoresItsArguments) {
  Driver const driver(FWFModus::Decomposition, scannerOf(), "out/put", "in/scan01.rxp", 200U);
  EXPECT_EQ(driver.modus, FWFModus::Decomposition);
  EXPECT_EQ(driver.outputDirectory, std::filesystem::path("out/put"));
  EXPECT_EQ(driver.inputFile, std::filesystem::path("in/scan01.rxp"));
  EXPECT_EQ(driver.message, "");
}

TEST_F(DriverPipeline, WithoutSystemWaveModesZeroAndOneHaveNoMessage) {
  ScannerDevice scanner = scannerOf();
  scanner.expsum_a.reset();
  scanner.expsum_b.reset();
  EXPECT_EQ(Driver(FWFModus::ThreePoint, scanner, "", "", 200U).message, "");
  EXPECT_EQ(Driver(FWFModus::Decomposition, scanner, "", "", 200U).message, "");
}

TEST_F(DriverPipeline, EchoHasPositionTimeAndDecibels) {
  WavePtr const wave = single({echoOf(200), 77.5, 1, 5e-6}, {.samplingTime = 1e-9, .tRef = 2e-6});
  ASSERT_EQ(wave->size(), 1U);
  Peak const& peak = wave->peaks.front();
  EXPECT_EQ(peak.idx, 10.0);
  EXPECT_EQ(peak.time, 10.0 * 1e-9 + (5e-6 - 2e-6));
  EXPECT_NEAR(peak.amplitude, 6.0206, Tolerance::decibel);  // 200 counts x 0.01 = 2
  EXPECT_NEAR(peak.std, 0.8493218, Tolerance::fitSamples);
  EXPECT_EQ(peak.type, GAUSS_3POINTS);
  EXPECT_EQ(peak.quality, GOOD);
}

TEST_F(DriverPipeline, WaveformHasItsInputsAndAnalysis) {
  WavePtr const wave = single({echoOf(200), 77.5, 1, 5e-6});
  EXPECT_EQ(wave->shotTime, 77.5);
  EXPECT_EQ(wave->sblTime, 5e-6);
  EXPECT_TRUE(wave->isLowPower);
  EXPECT_EQ(wave->length, 20U);
  EXPECT_EQ(wave->noise, 20);
  EXPECT_EQ(wave->binShift, 0.65);
  EXPECT_EQ(wave->globalStart, 8U);
  EXPECT_EQ(wave->globalEnd, 12U);
  EXPECT_TRUE(wave->online);
}

TEST_F(DriverPipeline, LargestSampleHasDecibelsAndTime) {
  WavePtr const wave = single({echoOf(200), 0.0, 0, 5e-6}, {.samplingTime = 1e-9, .tRef = 2e-6});
  EXPECT_EQ(wave->maxAmplitude, 200);
  EXPECT_EQ(wave->idxOfMaxAmplitude, 10U);
  EXPECT_FLOAT_EQ(wave->maxAmplitudeDB, 6.0205999F);
  EXPECT_EQ(wave->timeOfMaxAmplitude, 10.0 * 1e-9 + (5e-6 - 2e-6));
}

TEST_F(DriverPipeline, LargestSampleBelowOneUnitIsZeroDecibels) {
  EXPECT_EQ(single({echoOf(200)}, {.amplUnit = 0.005})->maxAmplitudeDB, 0.0F);
  EXPECT_GT(single({echoOf(202)}, {.amplUnit = 0.005})->maxAmplitudeDB, 0.0F);
}

TEST_F(DriverPipeline, EchoesBelowOneUnitAreZeroDecibels) {
  WavePtr const wave = single({echoOf(200)}, {.amplUnit = 0.004});
  ASSERT_EQ(wave->size(), 1U);
  EXPECT_EQ(wave->peaks.front().amplitude, 0.0F);
}

TEST_F(DriverPipeline, EchoesAreSortedByPosition) {
  Samples const samples =
      waveformOf(50, 5, {{4, {100, 200, 100}}, {20, {100, 200, 200, 100}}, {40, {60, 120, 60}}});
  WavePtr const wave = single({samples});
  EXPECT_EQ(positions(wave), (Positions{5.0, 21.5, 41.0}));
  auto const times = wave->peaks;
  EXPECT_NEAR(std::next(times.begin())->time / 1e-9, 21.5, Tolerance::timeIntervals);
}

TEST_F(DriverPipeline, AfterPulsesAreRemoved) {
  Samples const samples =
      waveformOf(40, 5, {{3, {60, 120, 60}}, {9, {500, 1000, 500}}, {20, {100, 200, 100}}});
  EXPECT_EQ(positions(single({samples})), (Positions{4.0, 10.0}));
}

TEST_F(DriverPipeline, LargestSampleBelow800HasNoAfterPulse) {
  Samples const samples = waveformOf(40, 5, {{9, {400, 799, 400}}, {20, {100, 200, 100}}});
  EXPECT_EQ(positions(single({samples})), (Positions{10.0, 21.0}));
}

TEST_F(DriverPipeline, UnknownScannerLosesItsStrongestEchoAndAllLaterOnes) {
  Samples const samples =
      waveformOf(40, 5, {{3, {60, 120, 60}}, {9, {400, 800, 400}}, {20, {100, 200, 100}}});
  EXPECT_EQ(positions(single({samples}, {.type = "VQ-1560"})), (Positions{4.0}));
}

TEST_F(DriverPipeline, AfterPulseWidthThatWrapsKeepsAllEchoes) {
  ScannerDevice scanner = scannerOf({.type = "VQ-1560"});
  scanner.afterpulse_width = 2147483647U;
  Driver driver(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
  Samples const samples = waveformOf(40, 5, {{9, {400, 800, 400}}, {20, {100, 200, 100}}});
  ShotMap const shots = blockOf({{samples}}).run(driver);
  EXPECT_EQ(positions(shots.at(0.0).waves.at(0)), (Positions{10.0, 21.0}));
}

TEST_F(DriverPipeline, EchoesAbove4096CountsAreRemovedButNotTheWaveform) {
  WavePtr const wave = single({waveformOf(20, 5, {{9, {2000, 4000, 4000, 2000}}})});
  EXPECT_EQ(wave->size(), 0U);
  EXPECT_EQ(wave->maxAmplitude, 4000);
}

// 60, 50, 50: a convex triple with its vertex at 1.5. A NaN width is not marked as bad.
TEST_F(DriverPipeline, EchoWithNaNWidthIsKept) {
  WavePtr const wave = single({{60, 50, 50, 50, 50, 5, 5}});
  ASSERT_EQ(wave->size(), 1U);
  EXPECT_NEAR(wave->peaks.front().idx, 1.5, Tolerance::fitSamples);
  EXPECT_TRUE(std::isnan(wave->peaks.front().std));
  EXPECT_NEAR(wave->peaks.front().time / 1e-9, 1.5, Tolerance::timeIntervals);
}

// One sample above the threshold: too short to be fitted, but not too low.
TEST_F(DriverPipeline, WaveformWithoutEchoesHasDecibelsAndTimeOfItsLargestSample) {
  WavePtr const wave =
      single({waveformOf(20, 5, {{9, {200}}}), 0.0, 0, 8.0}, {.samplingTime = 0.5, .tRef = 2.0});
  EXPECT_EQ(wave->size(), 0U);
  EXPECT_FLOAT_EQ(wave->maxAmplitudeDB, 6.0205999F);
  EXPECT_EQ(wave->timeOfMaxAmplitude, 10.5);  // 9 * 0.5 + (8 - 2)
}

// The reference time must be subtracted first: in double precision 2^60 + 2.5 is 2^60.
TEST_F(DriverPipeline, LargeSblAndReferenceTimesDoNotRoundTheTimeInTheWaveform) {
  double const large = 1152921504606846976.0;
  WavePtr const wave = single({echoOf(200), 0.0, 0, large}, {.samplingTime = 0.25, .tRef = large});
  ASSERT_EQ(wave->size(), 1U);
  EXPECT_EQ(wave->peaks.front().time, 2.5);
  EXPECT_EQ(wave->timeOfMaxAmplitude, 2.5);
}

TEST_F(DriverPipeline, NegativeNoiseIsEstimatedForEveryWaveform) {
  Samples const high = waveformOf(60, 50, {{9, {300, 600, 300}}});
  Samples const higher = waveformOf(60, 80, {{9, {300, 600, 300}}});
  Driver driver = driverOf();
  ShotMap const shots = blockOf({{high, 1.0}, {higher, 2.0}}).run(driver, -1);
  EXPECT_EQ(shots.at(1.0).waves.at(0)->noise, 50);
  EXPECT_EQ(shots.at(2.0).waves.at(0)->noise, 80);
}

TEST_F(DriverPipeline, UnknownModeCollectsWaveformsWithoutEchoes) {
  Driver driver = driverOf({}, 4);
  ShotMap const shots =
      blockOf({{echoOf(200), 2.0}, {echoOf(300), 1.0}, {echoOf(200), 2.0}, {noSignal(), 3.0}}).run(driver);
  ASSERT_EQ(shots.size(), 2U);
  EXPECT_EQ(shots.at(1.0).waves.size(), 1U);
  EXPECT_EQ(shots.at(2.0).waves.size(), 1U);
  WavePtr const wave = shots.at(2.0).waves[0];
  EXPECT_EQ(wave->size(), 0U);
  EXPECT_FLOAT_EQ(wave->maxAmplitudeDB, 6.0205999F);
  EXPECT_EQ(driver.lastBlock().statistics.splitCounts[1], 3U);
  EXPECT_EQ(driver.lastBlock().statistics.duplicates, 1U);
  EXPECT_EQ(driver.lastBlock().statistics.signalTooLow, 1U);
}

TEST_F(DriverPipeline, HostTextIsIgnored) {
  Driver driver = driverOf();
  Block const block = blockOf({{echoOf(200)}});
  ShotMap const shots = driver.apply(
      block.waveforms, Kestra::MultiArray<1, unsigned short>(block.counts),
      Kestra::MultiArray<1, double>(block.shotTimes), Kestra::MultiArray<1, double>(block.sblTimes),
      Kestra::MultiArray<1, unsigned char>(block.channelFlags), 20, "another text");
  EXPECT_EQ(positions(shots.at(0.0).waves.at(0)), (Positions{10.0}));
}

TEST_F(DriverPipeline, ScannerIsCopied) {
  ScannerDevice scanner = scannerOf();
  Driver driver(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
  scanner.sampling_time = 7.0;
  ShotMap const shots = blockOf({{echoOf(200)}}).run(driver);
  EXPECT_EQ(shots.at(0.0).waves.at(0)->peaks.front().time, 10.0 * 1e-9);
}

TEST_F(DriverPipeline, WaveformsOutliveDriverAndBlock) {
  WavePtr const wave = single({echoOf(200)});
  EXPECT_EQ(wave->record().strongCount(), 1U);
  EXPECT_EQ(positions(wave), (Positions{10.0}));
}

}  // namespace
}  // namespace FullWaveform
