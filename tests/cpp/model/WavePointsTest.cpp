#include <fullwaveform/model/WavePoints.h>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestScanner.h"
#include "support/TestWaveforms.h"

namespace FullWaveform {
namespace {

using Wave = WavePoints<unsigned short>;
using StartEnd = std::map<unsigned int, unsigned int>;
using Windows = std::vector<std::pair<double, double>>;
using Testing::Samples;

static_assert(std::is_base_of_v<AdditionalAttributesPerWave, Wave>);
static_assert(std::is_base_of_v<Holdex::ReferenceBase<Wave>, Wave>);
static_assert(!std::is_polymorphic_v<AdditionalAttributesPerWave> && std::is_polymorphic_v<Wave>);
static_assert(std::is_same_v<decltype(Wave::idxOfMaxAmplitude), std::uint32_t>);
static_assert(std::is_same_v<decltype(Wave::maxAmplitude), unsigned short>);
static_assert(std::is_same_v<decltype(Wave::noise), unsigned short>);
static_assert(std::is_same_v<decltype(Wave::maxAmplitudeDB), float>);
static_assert(std::is_same_v<decltype(Wave::startEnd), StartEnd>);
static_assert(std::is_same_v<decltype(Wave::afterPulse), Windows>);
static_assert(std::is_same_v<decltype(Wave::peaks), std::list<Peak>>);
static_assert(std::is_same_v<decltype(AdditionalAttributesPerWave::damping), float>);

ScannerDevice scannerWith(unsigned offset, unsigned width) {
  ScannerDevice scanner;
  scanner.afterpulse_offset = offset;
  scanner.afterpulse_width = width;
  return scanner;
}

Wave waveOf(Samples const& samples, int noise, ScannerDevice const& scanner = scannerWith(5, 2)) {
  return {samples.data(), 0, 0.0, 0.0, static_cast<int>(samples.size()), noise, scanner};
}

void expectNoSegments(Wave const& wave) {
  EXPECT_EQ(wave.startEnd, StartEnd{});
  EXPECT_EQ(wave.afterPulse, Windows{});
  EXPECT_EQ(wave.globalStart, 0U);
  EXPECT_EQ(wave.globalEnd, 0U);
  EXPECT_EQ(wave.lengthCropped, 0U);
}

TEST(WavePoints, DefaultConstructedHasNoSignal) {
  Wave const wave;
  expectNoSegments(wave);
  EXPECT_FALSE(wave.isLowPower);
  EXPECT_TRUE(wave.online);
  EXPECT_EQ(wave.shotTime, 0.0);
  EXPECT_EQ(wave.sblTime, 0.0);
  EXPECT_EQ(wave.damping, 0.0F);
  EXPECT_EQ(wave.idxOfMaxAmplitude, 0U);
  EXPECT_EQ(wave.maxAmplitude, 0);
  EXPECT_TRUE(wave.peaks.empty());
  EXPECT_EQ(wave.binShift, 0.0);
  EXPECT_EQ(wave.length, 0U);
  EXPECT_EQ(wave.noise, 0);
  EXPECT_EQ(wave.maxAmplitudeDB, 0.0F);
  EXPECT_EQ(wave.timeOfMaxAmplitude, 0.0);
}

TEST(WavePoints, FieldsKeepTheirOrder) {
  Wave const w;
  std::vector<void const*> const attributes{&w.isLowPower, &w.shotTime, &w.sblTime, &w.damping};
  std::vector<void const*> const fields{
      &w.idxOfMaxAmplitude, &w.maxAmplitude,       &w.peaks,  &w.binShift,    &w.length,    &w.noise,
      &w.maxAmplitudeDB,    &w.timeOfMaxAmplitude, &w.online, &w.globalStart, &w.globalEnd, &w.startEnd,
      &w.lengthCropped,     &w.afterPulse};
  for (auto const& list : {attributes, fields}) {
    for (std::size_t i = 1; i < list.size(); ++i) {
      EXPECT_LT(list[i - 1], list[i]) << "field " << i;
    }
  }
}

TEST(WavePoints, OnlyChannelFlagOneIsLowPower) {
  EXPECT_FALSE(Wave(0, 1.0, 2.0).isLowPower);
  EXPECT_TRUE(Wave(1, 1.0, 2.0).isLowPower);
  EXPECT_FALSE(Wave(2, 1.0, 2.0).isLowPower);
  EXPECT_FALSE(Wave(255, 1.0, 2.0).isLowPower);
}

TEST(WavePoints, OnBoardWaveformHasTheGivenTimes) {
  Wave const wave(1, 123.5, 4e-6);
  EXPECT_EQ(wave.shotTime, 123.5);
  EXPECT_EQ(wave.sblTime, 4e-6);
  EXPECT_TRUE(wave.online);
  EXPECT_EQ(wave.length, 0U);
  expectNoSegments(wave);
}

TEST(WavePoints, EveryObjectHasANewIdentityAndSerial) {
  Wave const first;
  Wave const second(0, 0.0, 0.0);
  EXPECT_EQ(second.identity(), first.identity() + 1);
  EXPECT_EQ(second.serial(), first.serial() + 1);
}

TEST(WavePoints, WorkedExample) {
  Samples const samples{5, 50, 60, 5, 5};
  ScannerDevice scanner = scannerWith(5, 2);
  scanner.bin_shift = 0.65;
  Wave const wave(samples.data(), 1, 77.5, 3e-6, 5, 10, scanner);
  EXPECT_EQ(wave.startEnd, (StartEnd{{0, 3}}));
  EXPECT_EQ(wave.maxAmplitude, 60);
  EXPECT_EQ(wave.idxOfMaxAmplitude, 2U);
  EXPECT_EQ(wave.globalStart, 0U);
  EXPECT_EQ(wave.globalEnd, 3U);
  EXPECT_EQ(wave.lengthCropped, 3U);
  EXPECT_EQ(wave.afterPulse, (Windows{{5.0, 100009.0}}));
  EXPECT_TRUE(wave.isLowPower);
  EXPECT_EQ(wave.shotTime, 77.5);
  EXPECT_EQ(wave.sblTime, 3e-6);
  EXPECT_EQ(wave.damping, 0.0F);
  EXPECT_EQ(wave.binShift, 0.65);
  EXPECT_EQ(wave.length, 5U);
  EXPECT_EQ(wave.noise, 10);
  EXPECT_EQ(wave.maxAmplitudeDB, 0.0F);
  EXPECT_EQ(wave.timeOfMaxAmplitude, 0.0);
  EXPECT_TRUE(wave.online);
  EXPECT_TRUE(wave.peaks.empty());
}

TEST(WavePoints, GlobalRangeSpansAllSegments) {
  Wave const wave = waveOf({5, 5, 50, 5, 5, 5, 50, 70, 5, 5}, 10);
  EXPECT_EQ(wave.startEnd, (StartEnd{{1, 3}, {5, 8}}));
  EXPECT_EQ(wave.globalStart, 1U);
  EXPECT_EQ(wave.globalEnd, 8U);
  EXPECT_EQ(wave.lengthCropped, 7U);
}

TEST(WavePoints, AllSamplesAboveTheNoiseAreOneSegment) {
  Wave const wave = waveOf(Samples(8, 50), 10);
  EXPECT_EQ(wave.startEnd, (StartEnd{{1, 6}}));
  EXPECT_EQ(wave.lengthCropped, 5U);
}

TEST(WavePoints, WithoutSegmentsThereIsNoAfterPulseWindow) {
  Wave const wave = waveOf({5, 9, 10, 9, 5}, 10);
  expectNoSegments(wave);
  EXPECT_EQ(wave.maxAmplitude, 10);
  EXPECT_EQ(wave.idxOfMaxAmplitude, 2U);
}

TEST(WavePoints, ComparesWithTheLow16BitsOfTheNoise) {
  Samples const samples{5, 5, 50, 5, 5};
  EXPECT_EQ(waveOf(samples, 65536 + 60).noise, 60);
  EXPECT_EQ(waveOf(samples, 65536 + 60).startEnd, StartEnd{});
  EXPECT_EQ(waveOf(samples, 65536).noise, 0);
  EXPECT_EQ(waveOf(samples, 65536 + 40).startEnd, (StartEnd{{1, 3}}));
}

TEST(WavePoints, NoiseZeroIsUsedAndNegativeNoiseEstimated) {
  Samples const samples(40, 50);
  EXPECT_EQ(waveOf(samples, 0).noise, 0);
  EXPECT_EQ(waveOf(samples, -1).noise, 50);
  EXPECT_EQ(waveOf(samples, -2147483647).noise, 50);
}

TEST(WavePoints, KeepsTheLow16BitsOfTheEstimate) {
  // 40 samples of 50000, doubled: 100000 = 65536 + 34464.
  EXPECT_EQ(waveOf(Samples(40, 50000), -1).noise, 34464);
}

TEST(WavePoints, AfterPulseWindowIsRelativeToTheMaximum) {
  EXPECT_EQ(waveOf({5, 50, 60, 70, 60, 5, 5}, 10, scannerWith(10, 3)).afterPulse,
            (Windows{{10.0, 100016.0}}));
}

TEST(WavePoints, WithoutOffsetTheWindowStartsAtTheMaximum) {
  EXPECT_EQ(waveOf({5, 50, 60, 5, 5}, 10, scannerWith(0, 0)).afterPulse, (Windows{{2.0, 100002.0}}));
}

TEST(WavePoints, AWindowWiderThanItsCentreWrapsAndMarksNoEcho) {
  Wave wave = waveOf({5, 900, 1000, 5, 5}, 10, scannerWith(5, 8));
  EXPECT_EQ(wave.afterPulse, (Windows{{4294967295.0, 100015.0}}));
  wave.push_back({1000.0, 2.0, 0.0, RAW, GOOD, 0.0, 0, 0.0F});
  wave.push_back({900.0, 4000.0, 0.0, RAW, GOOD, 0.0, 0, 0.0F});
  wave.testIfAfterPulse();
  EXPECT_EQ(wave.peaks.front().quality, GOOD);
  EXPECT_EQ(wave.peaks.back().quality, GOOD);
}

TEST(WavePoints, TheUpperBoundWrapsBeforeItIsExtended) {
  EXPECT_EQ(waveOf({5, 50, 60, 5, 5}, 10, scannerWith(4294967295U, 1)).afterPulse,
            (Windows{{0.0, 100002.0}}));
  EXPECT_EQ(waveOf({5, 50, 60, 5, 5}, 10, scannerWith(4294967293U, 2)).afterPulse,
            (Windows{{4294967293.0, 100001.0}}));
}

TEST(WavePoints, ALargeWidthDisablesTheAfterPulseTest) {
  Wave wave = waveOf({5, 900, 1000, 5, 5}, 10, scannerWith(0, 2147483647U));
  wave.push_back({1000.0, 2.0, 0.0, RAW, GOOD, 0.0, 0, 0.0F});
  wave.testIfAfterPulse();
  EXPECT_EQ(wave.peaks.front().quality, GOOD);
}

TEST(WavePoints, OneSampleAboveTheNoiseWraps) {
  Wave const wave = waveOf({50}, 10);
  EXPECT_EQ(wave.startEnd, (StartEnd{{1, 4294967295U}}));
  EXPECT_EQ(wave.globalStart, 1U);
  EXPECT_EQ(wave.globalEnd, 4294967295U);
  EXPECT_EQ(wave.lengthCropped, 4294967294U);
  EXPECT_EQ(wave.maxAmplitude, 0);
  EXPECT_EQ(wave.afterPulse, (Windows{{3.0, 100007.0}}));
}

TEST(WavePoints, TwoSamplesWithTheFirstAboveTheNoiseWrap) {
  Wave const wave = waveOf({50, 60}, 10);
  EXPECT_EQ(wave.startEnd, (StartEnd{{1, 0}}));
  EXPECT_EQ(wave.globalStart, 1U);
  EXPECT_EQ(wave.globalEnd, 0U);
  EXPECT_EQ(wave.lengthCropped, 4294967295U);
  EXPECT_EQ(wave.maxAmplitude, 0);
}

TEST(WavePoints, ShortWaveformsBelowTheNoiseHaveNoSegments) {
  expectNoSegments(waveOf({5}, 10));
  expectNoSegments(waveOf({10, 60}, 10));
}

TEST(WavePoints, NullSamplesAreNotRead) {
  Wave const given(nullptr, 1, 1.0, 2.0, 0, 25, scannerWith(5, 2));
  expectNoSegments(given);
  EXPECT_EQ(given.noise, 25);
  EXPECT_TRUE(given.isLowPower);
  Wave const estimated(nullptr, 0, 1.0, 2.0, 0, -1, scannerWith(5, 2));
  expectNoSegments(estimated);
  EXPECT_EQ(estimated.noise, 180);
}

TEST(WavePoints, NegativeLengthWithGivenNoiseReadsNoSamples) {
  unsigned short const sample = 5000;
  Wave const wave(&sample, 0, 0.0, 0.0, -1, 10, scannerWith(5, 2));
  expectNoSegments(wave);
  EXPECT_EQ(wave.length, 4294967295U);
}

TEST(WavePoints, EstimateForANegativeLengthThrows) {
  unsigned short const sample = 5000;
  EXPECT_THROW(Wave(&sample, 0, 0.0, 0.0, -1, -1, scannerWith(5, 2)), std::length_error);
}

TEST(WavePoints, DoesNotReadOutsideTheWaveform) {
  for (std::size_t length = 0; length < 25; ++length) {
    for (int const noise : {-1, 10, 100}) {
      Testing::withGuardedCopies(Samples(length, 50), [&](unsigned short const* samples) {
        Wave const wave(samples, 0, 0.0, 0.0, static_cast<int>(length), noise, scannerWith(5, 2));
        EXPECT_EQ(wave.length, length);
      });
    }
  }
}

}  // namespace
}  // namespace FullWaveform
