#include <fullwaveform/model/MarkBadPeaks.h>

#include <cmath>
#include <limits>
#include <list>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

struct Case {
  double amplitude = 100.0;
  double idx = 20.0;
  double std = 2.0;
};

/// Whether an echo is marked for positions 10 to 30 and a minimum of 50 counts; checks that only its quality
/// changes.
bool isMarked(Case const& values) {
  std::list<Peak> peaks{{values.amplitude, values.idx, 7.0, RAW, GOOD, values.std, 9, 1.5F}};
  unsigned short const minimum = 50;
  bool const allGood = markBadPeaks(peaks, 10, 30, minimum);
  Peak const& peak = peaks.front();
  EXPECT_EQ(allGood, peak.quality == GOOD);
  EXPECT_TRUE(peak.quality == GOOD || peak.quality == EXCEEDS_RANGE);
  EXPECT_EQ(peak.time, 7.0);
  EXPECT_EQ(peak.type, RAW);
  EXPECT_EQ(peak.classification, 9);
  return peak.quality == EXCEEDS_RANGE;
}

TEST(MarkBadPeaks, EmptyListIsGood) {
  std::list<Peak> peaks;
  unsigned short const minimum = 50;
  EXPECT_TRUE(markBadPeaks(peaks, 0, 10, minimum));
  EXPECT_TRUE(peaks.empty());
}

TEST(MarkBadPeaks, PositionsAtTheBoundsAreGood) {
  EXPECT_FALSE(isMarked({.idx = 10.0}));
  EXPECT_FALSE(isMarked({.idx = 30.0}));
  EXPECT_TRUE(isMarked({.idx = std::nextafter(10.0, 0.0)}));
  EXPECT_TRUE(isMarked({.idx = std::nextafter(30.0, 40.0)}));
}

TEST(MarkBadPeaks, AmplitudesUpTo4096AreGood) {
  EXPECT_FALSE(isMarked({.amplitude = 4096.0}));
  EXPECT_TRUE(isMarked({.amplitude = 4096.5}));
  EXPECT_TRUE(isMarked({.amplitude = static_cast<double>(std::nextafter(4096.0F, 5000.0F))}));
}

TEST(MarkBadPeaks, AmplitudesFromTheMinimumAreGood) {
  EXPECT_FALSE(isMarked({.amplitude = 50.0}));
  EXPECT_TRUE(isMarked({.amplitude = static_cast<double>(std::nextafter(50.0F, 0.0F))}));
}

TEST(MarkBadPeaks, AmplitudeIsComparedInSinglePrecision) {
  // Peak rounds these to 50 and 4096.
  EXPECT_FALSE(isMarked({.amplitude = 49.9999999}));
  EXPECT_FALSE(isMarked({.amplitude = 4096.0000001}));
}

TEST(MarkBadPeaks, WidthsFromZeroToFiftyAreGood) {
  EXPECT_FALSE(isMarked({.std = 0.0}));
  EXPECT_FALSE(isMarked({.std = 50.0}));
  EXPECT_TRUE(isMarked({.std = -std::numeric_limits<double>::denorm_min()}));
  EXPECT_TRUE(isMarked({.std = std::nextafter(50.0, 60.0)}));
}

TEST(MarkBadPeaks, AllValuesAtTheirBoundsAreGood) {
  EXPECT_FALSE(isMarked({.amplitude = 4096.0, .idx = 10.0, .std = 50.0}));
}

TEST(MarkBadPeaks, NaNIsNotMarked) {
  EXPECT_FALSE(isMarked({.amplitude = nan, .idx = nan, .std = nan}));
}

TEST(MarkBadPeaks, OneBadValueAmongNaNsIsMarked) {
  EXPECT_TRUE(isMarked({.amplitude = 5000.0, .idx = nan, .std = nan}));
  EXPECT_TRUE(isMarked({.amplitude = nan, .idx = 31.0, .std = nan}));
  EXPECT_TRUE(isMarked({.amplitude = nan, .idx = nan, .std = -1.0}));
}

TEST(MarkBadPeaks, InfinitiesAreBad) {
  EXPECT_TRUE(isMarked({.amplitude = infinity}));
  EXPECT_TRUE(isMarked({.idx = -infinity}));
  EXPECT_TRUE(isMarked({.std = infinity}));
}

TEST(MarkBadPeaks, RangeMayBeNegativeOrReversed) {
  std::list<Peak> peaks{{100.0, 0.0, 0.0, RAW, GOOD, 1.0, 0, 0.0F}};
  unsigned short const minimum = 0;
  EXPECT_TRUE(markBadPeaks(peaks, -5, 0, minimum));
  EXPECT_FALSE(markBadPeaks(peaks, 1, -1, minimum));
}

TEST(MarkBadPeaks, ExistingMarksAreKept) {
  std::list<Peak> peaks{{100.0, 20.0, 0.0, RAW, EXCEEDS_RANGE, 2.0, 0, 0.0F},
                        {100.0, 20.0, 0.0, RAW, AFTERPULS, 2.0, 0, 0.0F}};
  unsigned short const minimum = 50;
  EXPECT_TRUE(markBadPeaks(peaks, 10, 30, minimum));
  EXPECT_EQ(peaks.front().quality, EXCEEDS_RANGE);
  EXPECT_EQ(peaks.back().quality, AFTERPULS);
}

TEST(MarkBadPeaks, AnAfterPulseOutOfRangeIsMarked) {
  std::list<Peak> peaks{{100.0, 31.0, 0.0, RAW, AFTERPULS, 2.0, 0, 0.0F}};
  unsigned short const minimum = 50;
  EXPECT_FALSE(markBadPeaks(peaks, 10, 30, minimum));
  EXPECT_EQ(peaks.front().quality, EXCEEDS_RANGE);
}

TEST(MarkBadPeaks, OneBadEchoReturnsFalseAndLeavesTheOthersGood) {
  std::list<Peak> peaks{{5000.0, 20.0, 0.0, RAW, GOOD, 2.0, 0, 0.0F},
                        {100.0, 20.0, 0.0, RAW, GOOD, 2.0, 0, 0.0F}};
  unsigned short const minimum = 50;
  EXPECT_FALSE(markBadPeaks(peaks, 10, 30, minimum));
  ASSERT_EQ(peaks.size(), 2U);
  EXPECT_EQ(peaks.front().quality, EXCEEDS_RANGE);
  EXPECT_EQ(peaks.back().quality, GOOD);
}

TEST(RemoveBadPeaks, RemovesQualityTwoAndMore) {
  std::list<Peak> peaks;
  for (unsigned const quality : {0U, 1U, 2U, 3U, 1U}) {
    peaks.emplace_back(static_cast<double>(quality), 0.0, 0.0, RAW, static_cast<QUALITY>(quality), 0.0,
                       static_cast<unsigned char>(0), 0.0F);
  }
  removeBadPeaks(peaks);
  ASSERT_EQ(peaks.size(), 3U);
  EXPECT_EQ(peaks.front().quality, GOOD);
  EXPECT_EQ(peaks.back().quality, AFTERPULS);
}

}  // namespace
}  // namespace FullWaveform
