#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include <fullwaveform/driver/BlockParts.h>
#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Ends = std::vector<std::size_t>;

Ends endsOf(std::vector<double> const& shotTimes) {
  Kestra::MultiArray<1, double> const times(shotTimes);
  BlockParts const parts(times, shotTimes.size());
  Ends ends;
  while (ends.empty() || ends.back() < shotTimes.size()) {
    ends.push_back(parts.endOfPart(ends.empty() ? 0 : ends.back()));
  }
  return ends;
}

/// Three waveforms per shot.
std::vector<double> shotsOfThree(std::size_t rows) {
  std::vector<double> times;
  for (std::size_t row = 0; row < rows; ++row) {
    times.push_back(static_cast<double>(row / 3));
  }
  return times;
}

TEST(BlockParts, EndWithTheShotOfTheirLastRow) {
  // 513 = 3 * 171 is the first multiple of 3 from 512 on.
  EXPECT_EQ(endsOf(shotsOfThree(1100)), (Ends{513, 1026, 1100}));
  EXPECT_EQ(endsOf(shotsOfThree(511)), Ends{511});
  EXPECT_EQ(endsOf(std::vector<double>(2000, 7.0)), Ends{2000});
}

TEST(BlockParts, ABlockWhoseTimesDoNotAscendIsOnePart) {
  std::vector<double> times = shotsOfThree(1100);
  times[1099] = 0.0;
  EXPECT_EQ(endsOf(times), Ends{1100});
  times[1099] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(endsOf(times), Ends{1100});
  times = shotsOfThree(1100);
  times[0] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(endsOf(times), Ends{1100});
}

/// Shots of three waveforms: two channels with the same echo, and a duplicate of the second.
std::vector<Row> rowsOf(std::vector<double> const& shotTimes) {
  std::vector<Row> rows;
  for (std::size_t row = 0; row < shotTimes.size(); ++row) {
    auto const top = static_cast<unsigned short>(60 + row / 3 % 500 + (row % 3 == 0 ? 20 : 0));
    rows.push_back({echoOf(top), shotTimes[row], static_cast<unsigned char>(row % 3 == 0 ? 1 : 0)});
  }
  return rows;
}

/// Everything about the waveforms of some shots.
std::string textOf(ShotMap const& shots) {
  std::string text;
  for (auto const& [time, shot] : shots) {
    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
      text += std::to_string(time) + ' ' + std::to_string(shot.rows[i]) + shot.waves[i]->print();
    }
  }
  return text;
}

std::string textOf(BlockReport const& report) {
  std::string text = report.statistics.record() + std::to_string(report.mergedIntoOtherChannel);
  for (RowState const state : report.rowStates) {
    text += static_cast<char>('0' + static_cast<int>(state));
  }
  for (float const amplitude : report.amplitudesInCounts) {
    text += ' ' + std::to_string(amplitude);
  }
  return text;
}

/// Parts of a block, after a comparison of all together with the result of `apply`.
std::size_t comparedParts(std::vector<double> const& shotTimes) {
  TemporaryDirectory const directory;
  Driver driver(FWFModus::ThreePoint, scannerOf(), directory.path(), "scan01.rxp", 0U);
  Block const block = blockOf(rowsOf(shotTimes));
  std::string const expected = textOf(block.run(driver));
  std::string const expectedReport = textOf(driver.lastBlock());
  EXPECT_GT(driver.lastBlock().mergedIntoOtherChannel, 0U);
  EXPECT_GT(driver.lastBlock().statistics.duplicates, 0U);
  std::string text;
  std::size_t parts = 0;
  std::size_t echoes = 0;
  block.runInParts(driver, 20, [&](ShotMap const& shots, BlockReport const& report) {
    text += textOf(shots);
    ++parts;
    for (auto const& [time, shot] : shots) {
      for (WavePtr const& wave : shot.waves) {
        echoes += wave->size();
      }
    }
    EXPECT_EQ(report.amplitudesInCounts.size(), echoes);
  });
  EXPECT_EQ(text, expected);
  EXPECT_EQ(textOf(driver.lastBlock()), expectedReport);
  return parts;
}

TEST(DriverParts, HaveTogetherWhatApplyReturns) {
  std::vector<double> times = shotsOfThree(1100);
  EXPECT_EQ(comparedParts(times), 3U);
  times[1098] = 5.0;  // one shot once more
  EXPECT_EQ(comparedParts(times), 1U);
}

TEST(DriverParts, ABlockWithoutWaveformsHasNone) {
  TemporaryDirectory const directory;
  Driver driver(FWFModus::ThreePoint, scannerOf(), directory.path(), "scan01.rxp", 0U);
  blockOf({}).runInParts(driver, 20, [](ShotMap const&, BlockReport const&) { FAIL(); });
  EXPECT_TRUE(driver.lastBlock().rowStates.empty());
}

}  // namespace
}  // namespace FullWaveform
