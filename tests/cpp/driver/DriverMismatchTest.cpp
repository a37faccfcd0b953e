#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/ConsoleCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

class DriverMismatch : public testing::Test {
 protected:
  std::vector<double> shotTimesOf(Block const& block) {
    std::vector<double> times;
    for (auto const& [time, shot] : block.run(driver)) {
      times.push_back(time);
    }
    return times;
  }
  std::size_t messages() const { return capture.messages().size(); }

  ConsoleCapture capture;
  TemporaryDirectory directory;
  Driver driver{FWFModus::ThreePoint, scannerOf(), directory.path(), "scan01.rxp", 200U};
};

using Times = std::vector<double>;
using Messages = std::vector<std::string>;

Block threeShots() {
  return blockOf({{echoOf(200), 1.0}, {echoOf(300), 2.0}, {echoOf(400), 3.0}});
}

TEST_F(DriverMismatch, MatchingBlockGivesNoMessage) {
  EXPECT_EQ(shotTimesOf(threeShots()), (Times{1.0, 2.0, 3.0}));
  EXPECT_EQ(messages(), 0U);
}

TEST_F(DriverMismatch, RowsWithoutSamplesAreSignalTooLow) {
  Block block;
  block.counts = {0, 0, 0};
  block.shotTimes = {1.0, 2.0, 3.0};
  block.sblTimes = {0.0, 0.0, 0.0};
  block.channelFlags = {0, 1, 0};
  unsigned short const arbitrary[] = {7};
  for (auto const& waveforms :
       {Driver::Waveforms(new Array({3, 0}, Samples())), Driver::Waveforms(new Array({3, 0}, arbitrary))}) {
    block.waveforms = waveforms;
    EXPECT_EQ(shotTimesOf(block), Times{});
    EXPECT_EQ(driver.lastBlock().statistics.signalTooLow, 3U);
    EXPECT_EQ(driver.lastBlock().statistics.splitCounts[0], 3U);
    EXPECT_EQ(messages(), 0U);
  }
}

TEST_F(DriverMismatch, SurplusValuesGiveOneMessage) {
  Block block = threeShots();
  block.shotTimes.resize(7, 4.0);
  block.counts.resize(5, 20);
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0, 3.0}));
  EXPECT_EQ(capture.messages(), (Messages{"PeakDetectionFamily::apply: surplus array values: 4"}));
}

TEST_F(DriverMismatch, CountAboveTheRowLengthIsClipped) {
  Block block = threeShots();
  block.counts[1] = 21;
  block.counts[2] = 65535;
  ShotMap const shots = block.run(driver);
  ASSERT_EQ(shots.size(), 3U);
  for (double const time : {2.0, 3.0}) {
    EXPECT_EQ(shots.at(time).waves.at(0)->length, 20U);
    EXPECT_EQ(shots.at(time).waves.at(0)->peaks.front().idx, 10.0);
  }
  EXPECT_EQ(shots.at(3.0).signatures, (std::set<std::uint32_t>{6 * 5 + 200}));
  EXPECT_EQ(messages(), 1U);
}

TEST_F(DriverMismatch, NaNShotTimeSkipsTheWaveform) {
  Block block = threeShots();
  block.shotTimes[1] = nan;
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 3.0}));
  EXPECT_EQ(messages(), 1U);
}

TEST_F(DriverMismatch, EveryArrayCanBeTooShort) {
  Block block = threeShots();
  block.counts.pop_back();
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0}));
  block = threeShots();
  block.shotTimes.pop_back();
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0}));
  block = threeShots();
  block.sblTimes.pop_back();
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0}));
  block = threeShots();
  block.channelFlags.pop_back();
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0}));
  EXPECT_EQ(messages(), 4U);
  EXPECT_EQ(threeShots().run(driver, std::vector<int>{20, 20}).size(), 2U);
  EXPECT_EQ(driver.lastBlock().rowStates.at(2), RowState::InvalidRow);
  EXPECT_EQ(messages(), 5U);
}

TEST_F(DriverMismatch, EmptyArraySkipsAllWaveforms) {
  Block block = threeShots();
  block.sblTimes.clear();
  EXPECT_EQ(shotTimesOf(block), Times{});
  EXPECT_EQ(messages(), 1U);
}

TEST_F(DriverMismatch, EachBlockGivesOneMessageForAllMismatches) {
  Block block = threeShots();
  block.counts[0] = 500;
  block.shotTimes[1] = nan;
  block.channelFlags.pop_back();
  EXPECT_EQ(shotTimesOf(block), (Times{1.0}));
  Messages const expected{
      "PeakDetectionFamily::apply: invalid rows: 2 (no samples, NaN shot time, or a missing array value), "
      "clipped sample counts: 1 (row length 20)"};
  EXPECT_EQ(capture.messages(), expected);
  shotTimesOf(block);
  EXPECT_EQ(capture.messages(), (Messages{expected[0], expected[0]}));
}

TEST_F(DriverMismatch, NaNSblTimeKeepsTheWaveform) {
  Block block = threeShots();
  block.sblTimes[1] = nan;
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0, 3.0}));
}

TEST_F(DriverMismatch, SkippedRowsDoNotShiftTheChannelFlags) {
  Block block = blockOf({{echoOf(500), 1.0, 1}, {echoOf(600), 2.0, 0}, {echoOf(200), 2.0, 1}});
  block.shotTimes[0] = nan;
  ShotMap const shots = block.run(driver);
  EXPECT_EQ(shots.at(2.0).waves.at(0)->size(), 0U);
  EXPECT_EQ(shots.at(2.0).waves.at(1)->size(), 1U);
}

TEST_F(DriverMismatch, EmptyWaveformIsSignalTooLow) {
  Block block = threeShots();
  block.counts = {0, 0, 20};
  EXPECT_EQ(shotTimesOf(block), (Times{3.0}));
  EXPECT_EQ(driver.lastBlock().statistics.signalTooLow, 2U);
  EXPECT_EQ(messages(), 0U);
}

TEST_F(DriverMismatch, EmptyWaveformPointerIsReported) {
  Block block = threeShots();
  block.waveforms.reset();
  EXPECT_EQ(shotTimesOf(block), Times{});
  ASSERT_GE(messages(), 1U);
  EXPECT_EQ(capture.messages().front().rfind("SpeakPtr: ", 0), 0U);
}

TEST_F(DriverMismatch, RowAccessorTakesPrecedenceOverTheStorage) {
  std::vector<Samples> const rows{echoOf(200), echoOf(300), echoOf(400)};
  auto const accessor = [&](std::size_t row) { return rows[row].data(); };
  Block block = threeShots();
  block.waveforms = Driver::Waveforms(new Array({3, 20}, Array::RowAccessor(accessor)));
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0, 3.0}));
  // The storage holds only zeros.
  block.waveforms = Driver::Waveforms(new Array({3, 20}, Samples(60, 0)));
  EXPECT_EQ(shotTimesOf(block), Times{});
  block.waveforms->setRowAccessor(accessor);
  EXPECT_EQ(shotTimesOf(block), (Times{1.0, 2.0, 3.0}));
}

TEST_F(DriverMismatch, MemoryOfTheCallerIsReadInPlace) {
  Samples storage = echoOf(200);
  Samples const second = echoOf(300);
  storage.insert(storage.end(), second.begin(), second.end());
  Block block = blockOf({{echoOf(1), 1.0}, {echoOf(1), 2.0}});
  block.waveforms = Driver::Waveforms(new Array({2, 20}, storage.data()));
  ShotMap const shots = block.run(driver);
  EXPECT_EQ(shots.at(1.0).waves.at(0)->maxAmplitude, 200);
  EXPECT_EQ(shots.at(2.0).waves.at(0)->maxAmplitude, 300);
}

TEST_F(DriverMismatch, OnlyTheBlockIsRead) {
  for (std::size_t length = 1; length <= 8; ++length) {
    for (int const noise : {-1, 0, 20}) {
      for (unsigned short const count : Samples{0, static_cast<unsigned short>(length), 9}) {
        withGuardedCopies(Samples(length, 50), [&](unsigned short const* samples) {
          Block block = blockOf({{Samples(length, 50), 1.0}});
          block.waveforms = Driver::Waveforms(new Array({1, length}, samples));
          block.counts = {count};
          EXPECT_LE(block.run(driver, noise).size(), 1U);
        });
      }
    }
  }
}

}  // namespace
}  // namespace FullWaveform
