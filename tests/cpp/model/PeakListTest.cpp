#include <limits>
#include <list>
#include <type_traits>
#include <utility>
#include <vector>

#include <fullwaveform/host/TarnClass.h>
#include <fullwaveform/model/WavePoints.h>
#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Wave = WavePoints<unsigned short>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

Peak peakAt(double idx, double time = 0.0, unsigned char classification = 0) {
  return {100.0, idx, time, RAW, GOOD, 1.0, classification, 0.0F};
}

std::vector<int> classes(Wave const& wave) {
  std::vector<int> found;
  for (Peak const& peak : wave.peaks) {
    found.push_back(peak.classification);
  }
  return found;
}

std::vector<unsigned> qualities(Wave const& wave) {
  std::vector<unsigned> found;
  for (Peak const& peak : wave.peaks) {
    found.push_back(peak.quality);
  }
  return found;
}

using Classes = std::vector<int>;
using Qualities = std::vector<unsigned>;

TEST(PeakList, PushBackAppendsAndClearEmpties) {
  Wave wave;
  EXPECT_EQ(wave.size(), 0U);
  wave.push_back(peakAt(3.0));
  wave.push_back(peakAt(1.0));
  EXPECT_EQ(wave.size(), 2U);
  static_assert(std::is_same_v<decltype(std::declval<Wave const&>().size()), std::uint64_t>);
  EXPECT_EQ(wave.peaks.back().idx, 1.0);
  wave.clearPeaks();
  EXPECT_EQ(wave.size(), 0U);
}

TEST(PeakList, HoldsCopies) {
  Wave wave;
  Peak peak = peakAt(3.0);
  wave.push_back(peak);
  peak.idx = 4.0;
  EXPECT_EQ(wave.peaks.front().idx, 3.0);
}

TEST(PeakList, SortByTimeIsAscendingAndStable) {
  Wave wave;
  wave.peaks = {peakAt(0.0, 2.0, 1), peakAt(9.0, 1.0, 2), peakAt(5.0, 2.0, 3), peakAt(7.0, 1.0, 4)};
  wave.sort_time();
  EXPECT_EQ(classes(wave), (Classes{2, 4, 1, 3}));
}

TEST(PeakList, SortByIndexIsAscendingAndStable) {
  Wave wave;
  wave.peaks = {peakAt(5.0, 0.0, 1), peakAt(3.0, 9.0, 2), peakAt(5.0, -1.0, 3), peakAt(-2.0, 0.0, 4),
                peakAt(3.0, 1.0, 5)};
  wave.sort_idx();
  EXPECT_EQ(classes(wave), (Classes{4, 2, 5, 1, 3}));
}

TEST(PeakList, MaximumIsWritable) {
  Wave wave;
  wave.getMaxAmplitude() = 900;
  wave.getIdxOfMaxAmplitude() = 12;
  EXPECT_EQ(wave.maxAmplitude, 900);
  EXPECT_EQ(wave.idxOfMaxAmplitude, 12U);
  static_assert(std::is_same_v<decltype(wave.getMaxAmplitude()), unsigned short&>);
  static_assert(std::is_same_v<decltype(wave.getIdxOfMaxAmplitude()), std::uint32_t&>);
}

TEST(PeakList, SignalIsAboveNoiseOnlyWhenStrictlyAbove) {
  Wave wave;
  wave.noise = 200;
  wave.maxAmplitude = 199;
  EXPECT_FALSE(wave.signalIsAboveNoise());
  wave.maxAmplitude = 200;
  EXPECT_FALSE(wave.signalIsAboveNoise());
  wave.maxAmplitude = 201;
  EXPECT_TRUE(wave.signalIsAboveNoise());
  wave.noise = 0;
  wave.maxAmplitude = 65535;
  EXPECT_TRUE(wave.signalIsAboveNoise());
}

TEST(PeakList, IsNaNIsAlwaysFalse) {
  Wave wave;
  EXPECT_FALSE(wave.isNaN());
  wave.push_back(peakAt(nan, nan));
  EXPECT_FALSE(wave.isNaN());
}

TEST(PeakList, IsOnlineDependsOnTheFirstEchoOnly) {
  Wave wave;
  EXPECT_FALSE(wave.isOnline());
  EXPECT_TRUE(wave.online);
  Peak online = peakAt(1.0);
  online.type = ONLINE_OWP;
  wave.peaks = {peakAt(0.0), online};
  EXPECT_FALSE(wave.isOnline());
  wave.peaks = {online, peakAt(0.0)};
  EXPECT_TRUE(wave.isOnline());
}

TEST(PeakList, RangeFromFirstToLastPeakIsAlwaysZero) {
  Wave wave;
  wave.peaks = {peakAt(1.0, 1.0), peakAt(90.0, 2.0)};
  EXPECT_EQ(wave.rangeFromFirstToLastPeak(1e-9), 0.0);
  EXPECT_EQ(wave.rangeFromFirstToLastPeak(nan), 0.0);
}

TEST(PeakList, SetClassificationChangesAllEchoes) {
  Wave wave;
  wave.setClassification(5);
  EXPECT_EQ(wave.size(), 0U);
  wave.peaks = {peakAt(1.0, 0.0, 1), peakAt(2.0, 0.0, 2)};
  wave.setClassification(200);
  EXPECT_EQ(classes(wave), (Classes{200, 200}));
}

class AfterPulse : public testing::Test {
 protected:
  AfterPulse() {
    wave.maxAmplitude = 800;
    wave.afterPulse = {{13.0, 20.0}};
  }
  Wave wave;
};

TEST_F(AfterPulse, BoundsOfTheWindowAreInside) {
  wave.peaks = {peakAt(12.999999), peakAt(13.0), peakAt(16.0), peakAt(20.0), peakAt(20.000001)};
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), (Qualities{0, 1, 1, 1, 0}));
  EXPECT_EQ(classes(wave), (Classes{0, 7, 7, 7, 0}));
}

TEST_F(AfterPulse, NeedsAMaximumOf800) {
  wave.maxAmplitude = 799;
  wave.peaks = {peakAt(15.0)};
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), Qualities{0});
  wave.maxAmplitude = 800;
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), Qualities{1});
}

TEST_F(AfterPulse, WithoutAWindowNoEchoIsMarked) {
  wave.afterPulse.clear();
  wave.peaks = {peakAt(15.0)};
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), Qualities{0});
}

TEST_F(AfterPulse, WithoutEchoesHasNoEffect) {
  wave.testIfAfterPulse();
  EXPECT_EQ(wave.size(), 0U);
}

TEST_F(AfterPulse, AllWindowsApply) {
  wave.afterPulse = {{1.0, 2.0}, {10.0, 11.0}};
  wave.peaks = {peakAt(1.5), peakAt(5.0), peakAt(10.5)};
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), (Qualities{1, 0, 1}));
}

TEST_F(AfterPulse, NaNIsInNoWindow) {
  wave.afterPulse = {{-std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity()}};
  wave.peaks = {peakAt(nan)};
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), Qualities{0});
}

TEST_F(AfterPulse, TheClassCodeIsReadAtEachCall) {
  unsigned char const original = Quorvane::TarnClass::afterpulse;
  wave.peaks = {peakAt(15.0)};
  Quorvane::TarnClass::afterpulse = 21;
  wave.testIfAfterPulse();
  EXPECT_EQ(classes(wave), Classes{21});
  Quorvane::TarnClass::afterpulse = 22;
  wave.testIfAfterPulse();
  EXPECT_EQ(classes(wave), Classes{22});
  Quorvane::TarnClass::afterpulse = original;
}

TEST_F(AfterPulse, ReplacesAnExistingQuality) {
  wave.peaks = {peakAt(15.0)};
  wave.peaks.front().quality = EXCEEDS_RANGE;
  wave.testIfAfterPulse();
  EXPECT_EQ(qualities(wave), Qualities{1});
}

TEST_F(AfterPulse, SetClassificationKeepsTheQuality) {
  wave.peaks = {peakAt(15.0)};
  wave.testIfAfterPulse();
  wave.setClassification(3);
  EXPECT_EQ(classes(wave), Classes{3});
  EXPECT_EQ(qualities(wave), Qualities{1});
}

}  // namespace
}  // namespace FullWaveform
