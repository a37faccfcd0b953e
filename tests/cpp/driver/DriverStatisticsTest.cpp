#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;
using Splits = std::array<std::uint32_t, 10>;

class DriverStatistics : public testing::Test {
 protected:
  std::string warning() const { return contentOf(directory.path() / "scan01_Warning.txt"); }

  TemporaryDirectory directory;
  Driver driver{FWFModus::ThreePoint, scannerOf(), directory.path(), "flight/scan01.rxp", 200U};
};

/// A waveform with the given number of isolated samples above the threshold.
Samples splitInto(std::size_t segments) {
  Samples samples(64, 5);
  for (std::size_t i = 0; i < segments; ++i) {
    samples[4 * i + 2] = 50;
  }
  return samples;
}

/// Ten rows, the first `low` of them without signal.
std::vector<Row> tenRows(int low) {
  std::vector<Row> rows;
  for (int i = 0; i < 10; ++i) {
    rows.push_back({i < low ? noSignal() : echoOf(200), static_cast<double>(i)});
  }
  return rows;
}

std::string recordOfTen(std::string const& zeroSegments, std::string const& oneSegment,
                        std::string const& low, std::string const& duplicates) {
  std::string text =
      "NumberOfWaves: 10Splitted FWFs: 0 count: " + zeroSegments + "\nSplitted FWFs: 1 count: " + oneSegment;
  for (char index = '2'; index <= '9'; ++index) {
    text += std::string("\nSplitted FWFs: ") + index + " count: 0";
  }
  return text + "\nSignalTooLow: " + low + "[%] \nDuplicates: " + duplicates +
         "[%] \nCountNaNs: 0 -> 0[%] \n";
}

TEST_F(DriverStatistics, NineOrMoreSegmentsAreCountedTogether) {
  std::vector<Row> rows;
  for (std::size_t const segments : {0U, 1U, 2U, 8U, 9U, 10U, 15U}) {
    rows.push_back({splitInto(segments), static_cast<double>(segments)});
  }
  blockOf(rows).run(driver);
  EXPECT_EQ(driver.lastBlock().statistics.splitCounts, (Splits{1, 1, 1, 0, 0, 0, 0, 0, 1, 3}));
}

TEST_F(DriverStatistics, SegmentsOfWaveformsWithTooLowSignalAreCounted) {
  // Two samples, the first above the threshold: one segment, but no inner sample above it.
  blockOf({{Samples{50, 60}, 1.0}, {echoOf(200), 2.0}, {echoOf(200), 2.0}}).run(driver);
  RunStatistics const& statistics = driver.lastBlock().statistics;
  EXPECT_EQ(statistics.splitCounts, (Splits{0, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(statistics.signalTooLow, 1U);
  EXPECT_EQ(statistics.duplicates, 1U);
}

TEST_F(DriverStatistics, HalfOfTheBlockBelowTheThresholdWritesARecord) {
  blockOf(tenRows(5)).run(driver);
  EXPECT_EQ(warning(), recordOfTen("5", "5", "5 -> 50", "0 -> 0"));
}

TEST_F(DriverStatistics, LessThanHalfBelowTheThresholdWritesNoRecord) {
  blockOf(tenRows(4)).run(driver);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(DriverStatistics, HalfOfTheBlockDuplicatesWritesARecord) {
  std::vector<Row> rows;
  for (int i = 0; i < 10; ++i) {
    rows.push_back({echoOf(200), static_cast<double>(i / 2)});
  }
  blockOf(rows).run(driver);
  EXPECT_EQ(warning(), recordOfTen("0", "10", "0 -> 0", "5 -> 50"));
}

TEST_F(DriverStatistics, SignalEqualToTheThresholdIsTooLow) {
  Samples samples(20, 20);
  samples[10] = 21;
  blockOf({{Samples(20, 20), 1.0}, {samples, 2.0}, {echoOf(200), 3.0}}).run(driver);
  EXPECT_EQ(driver.lastBlock().statistics.signalTooLow, 1U);
}

TEST_F(DriverStatistics, BlockBelowTheThresholdGivesAnEmptyMap) {
  ShotMap const shots = blockOf(tenRows(10)).run(driver);
  EXPECT_TRUE(shots.empty());
  EXPECT_EQ(driver.lastBlock().statistics.signalTooLow, 10U);
  EXPECT_EQ(warning(), recordOfTen("10", "0", "10 -> 100", "0 -> 0"));
}

TEST_F(DriverStatistics, CountersStartAtZeroForEveryBlock) {
  blockOf(tenRows(6)).run(driver);
  std::string const first = warning();
  blockOf(tenRows(5)).run(driver);
  EXPECT_EQ(first, recordOfTen("6", "4", "6 -> 60", "0 -> 0"));
  EXPECT_EQ(warning(), first + recordOfTen("5", "5", "5 -> 50", "0 -> 0"));
}

TEST_F(DriverStatistics, RowsWithoutAllValuesCountAsWaveforms) {
  std::vector<Row> const rows = tenRows(5);
  for (auto const shorten : std::vector<void (*)(Block&)>{
           [](Block& b) { b.counts.resize(7); }, [](Block& b) { b.shotTimes.resize(7); },
           [](Block& b) { b.sblTimes.resize(7); }, [](Block& b) { b.channelFlags.resize(7); }}) {
    Block block = blockOf(rows);
    shorten(block);
    block.run(driver);
    EXPECT_EQ(driver.lastBlock().statistics.numberOfWaves, 10);
  }
}

TEST_F(DriverStatistics, BlockWithoutWaveformsWritesARecord) {
  ShotMap const shots = blockOf({}).run(driver);
  EXPECT_TRUE(shots.empty());
  EXPECT_EQ(warning().substr(0, 42), "NumberOfWaves: 0Splitted FWFs: 0 count: 0\n");
  EXPECT_NE(warning().find("SignalTooLow: 0 -> 0[%] \nDuplicates: 0 -> 0[%] \nCountNaNs: 0 -> 0[%] \n"),
            std::string::npos);
}

TEST_F(DriverStatistics, MissingDirectoryDoesNotChangeTheResult) {
  Driver other(FWFModus::ThreePoint, scannerOf(), directory.path() / "missing", "scan01.rxp", 200U);
  ShotMap const shots = blockOf(tenRows(6)).run(other);
  EXPECT_EQ(shots.size(), 4U);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

}  // namespace
}  // namespace FullWaveform
