#include <fullwaveform/driver/RunStatistics.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/TemporaryDirectory.h"

namespace FullWaveform {
namespace {

using Testing::contentOf;
using Testing::TemporaryDirectory;

RunStatistics statisticsOf(std::int64_t waves, std::uint32_t low, std::uint32_t duplicates,
                           std::uint32_t invalid = 0) {
  RunStatistics statistics;
  statistics.numberOfWaves = waves;
  statistics.signalTooLow = low;
  statistics.duplicates = duplicates;
  statistics.countNaNs = invalid;
  return statistics;
}

std::string const noSplits =
    "Splitted FWFs: 0 count: 0\nSplitted FWFs: 1 count: 0\nSplitted FWFs: 2 count: 0\n"
    "Splitted FWFs: 3 count: 0\nSplitted FWFs: 4 count: 0\nSplitted FWFs: 5 count: 0\n"
    "Splitted FWFs: 6 count: 0\nSplitted FWFs: 7 count: 0\nSplitted FWFs: 8 count: 0\n"
    "Splitted FWFs: 9 count: 0\n";

TEST(RunStatistics, StartsAtZeroWithARatioOfOneHalf) {
  RunStatistics const statistics;
  EXPECT_EQ(statistics.warningRatio, 0.5);
  EXPECT_EQ(statistics.numberOfWaves, 0);
  EXPECT_EQ(statistics.splitCounts, (std::array<std::uint32_t, 10>{}));
  EXPECT_EQ(statistics.signalTooLow + statistics.duplicates + statistics.countNaNs, 0U);
}

TEST(RunStatistics, HalfOfTheBlockIsSuspicious) {
  EXPECT_TRUE(statisticsOf(10, 5, 0).isSuspicious());
  EXPECT_FALSE(statisticsOf(10, 4, 0).isSuspicious());
  EXPECT_TRUE(statisticsOf(10, 0, 5).isSuspicious());
  EXPECT_FALSE(statisticsOf(10, 0, 4).isSuspicious());
  EXPECT_TRUE(statisticsOf(10, 0, 0, 5).isSuspicious());
  EXPECT_FALSE(statisticsOf(10, 0, 0, 4).isSuspicious());
}

TEST(RunStatistics, CountersAreNotAddedUp) {
  EXPECT_FALSE(statisticsOf(10, 4, 4, 4).isSuspicious());
}

TEST(RunStatistics, HalfOfAnOddBlockIsNotRounded) {
  EXPECT_FALSE(statisticsOf(11, 5, 0).isSuspicious());
  EXPECT_TRUE(statisticsOf(11, 6, 0).isSuspicious());
}

TEST(RunStatistics, EmptyBlockIsSuspicious) {
  EXPECT_TRUE(statisticsOf(0, 0, 0).isSuspicious());
}

TEST(RunStatistics, SegmentsAreCountedUpToNineOrMore) {
  RunStatistics statistics;
  for (std::size_t const segments : {0U, 1U, 1U, 8U, 9U, 10U, 4000U}) {
    statistics.countSegments(segments);
  }
  EXPECT_EQ(statistics.splitCounts, (std::array<std::uint32_t, 10>{1, 2, 0, 0, 0, 0, 0, 0, 1, 3}));
}

TEST(RunStatistics, RecordHasOneLinePerCounter) {
  RunStatistics statistics = statisticsOf(120, 60, 1, 0);
  statistics.splitCounts = {1, 20, 3, 4, 5, 6, 7, 8, 9, 4294967295U};
  EXPECT_EQ(statistics.record(),
            "NumberOfWaves: 120Splitted FWFs: 0 count: 1\n"
            "Splitted FWFs: 1 count: 20\n"
            "Splitted FWFs: 2 count: 3\n"
            "Splitted FWFs: 3 count: 4\n"
            "Splitted FWFs: 4 count: 5\n"
            "Splitted FWFs: 5 count: 6\n"
            "Splitted FWFs: 6 count: 7\n"
            "Splitted FWFs: 7 count: 8\n"
            "Splitted FWFs: 8 count: 9\n"
            "Splitted FWFs: 9 count: 4294967295\n"
            "SignalTooLow: 60 -> 50[%] \n"
            "Duplicates: 1 -> 0[%] \n"
            "CountNaNs: 0 -> 0[%] \n");
}

TEST(RunStatistics, RecordOfAnEmptyBlockShowsZeroPercent) {
  EXPECT_EQ(statisticsOf(0, 0, 0).record(), "NumberOfWaves: 0" + noSplits +
                                                "SignalTooLow: 0 -> 0[%] \n"
                                                "Duplicates: 0 -> 0[%] \n"
                                                "CountNaNs: 0 -> 0[%] \n");
}

std::string percent(std::uint32_t count, std::int64_t all) {
  std::string const text = statisticsOf(all, count, 0).record();
  std::string const label = "SignalTooLow: " + std::to_string(count) + " -> ";
  std::size_t const start = text.find(label) + label.size();
  return text.substr(start, text.find("[%] \n", start) - start);
}

TEST(RunStatistics, PercentagesComeFromRoundedPerMille) {
  EXPECT_EQ(percent(1, 3), "33");
  EXPECT_EQ(percent(2, 3), "66");
  EXPECT_EQ(percent(0, 3), "0");
  EXPECT_EQ(percent(3, 3), "100");
  EXPECT_EQ(percent(1, 2), "50");
}

TEST(RunStatistics, HalfAPerMilleIsRoundedUp) {
  EXPECT_EQ(percent(199, 400), "49");     // 497.5 per mille
  EXPECT_EQ(percent(1999, 2000), "100");  // 999.5 per mille
  EXPECT_EQ(percent(1998, 2000), "99");   // 999 per mille
  EXPECT_EQ(percent(19, 2000), "1");      // 9.5 per mille
  EXPECT_EQ(percent(18, 2000), "0");      // 9 per mille
}

TEST(RunStatistics, LargeBlocksKeepTheirPercentage) {
  EXPECT_EQ(percent(4294967295U, std::int64_t{1} << 33), "50");
}

std::filesystem::path pathOf(std::filesystem::path const& input) {
  RunStatistics statistics;
  statistics.outputDirectory = "out";
  statistics.inputFile = input;
  return statistics.reportPath();
}

TEST(RunStatistics, FileIsNamedAfterTheStemOfTheInput) {
  EXPECT_EQ(pathOf("scan01.rxp"), "out/scan01_Warning.txt");
  EXPECT_EQ(pathOf("scan01"), "out/scan01_Warning.txt");
  EXPECT_EQ(pathOf("/data/flight/scan01.rxp"), "out/scan01_Warning.txt");
  EXPECT_EQ(pathOf("scan.01.rxp"), "out/scan.01_Warning.txt");
  EXPECT_EQ(pathOf(".hidden"), "out/.hidden_Warning.txt");
  EXPECT_EQ(pathOf("flight/"), "out/_Warning.txt");
  EXPECT_EQ(pathOf(""), "out/_Warning.txt");
  EXPECT_EQ(pathOf("Flug\xC3\xBC"
                   "ber.rxp"),
            "out/Flug\xC3\xBC"
            "ber_Warning.txt");
}

TEST(RunStatistics, SuspiciousBlocksAreAppendedToTheFile) {
  TemporaryDirectory const directory;
  RunStatistics first = statisticsOf(10, 5, 0);
  first.outputDirectory = directory.path();
  first.inputFile = "scan01.rxp";
  RunStatistics second = statisticsOf(4, 0, 3);
  second.outputDirectory = directory.path();
  second.inputFile = "elsewhere/scan01";
  first.writeIfSuspicious();
  EXPECT_EQ(contentOf(directory.path() / "scan01_Warning.txt"), first.record());
  second.writeIfSuspicious();
  EXPECT_EQ(contentOf(directory.path() / "scan01_Warning.txt"), first.record() + second.record());
}

TEST(RunStatistics, BlocksBelowTheLimitWriteNoFile) {
  TemporaryDirectory const directory;
  RunStatistics statistics = statisticsOf(10, 4, 4);
  statistics.outputDirectory = directory.path();
  statistics.inputFile = "scan01.rxp";
  statistics.writeIfSuspicious();
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST(RunStatistics, FileThatCannotBeOpenedIsSkippedSilently) {
  TemporaryDirectory const directory;
  Testing::ConsoleCapture const capture;
  RunStatistics statistics = statisticsOf(10, 10, 0);
  statistics.outputDirectory = directory.path() / "missing";
  statistics.inputFile = "scan01.rxp";
  EXPECT_NO_THROW(statistics.writeIfSuspicious());
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
  EXPECT_TRUE(capture.messages().empty());
}

}  // namespace
}  // namespace FullWaveform
