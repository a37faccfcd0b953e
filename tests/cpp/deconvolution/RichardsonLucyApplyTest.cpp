#include <cstddef>
#include <cstdint>
#include <iterator>

#include <gtest/gtest.h>

#include <fullwaveform/deconvolution/RichardsonLucy.h>
#include <fullwaveform/host/TarnClass.h>
#include <richardson_lucy/RichardsonLucyCases.h>

#include "deconvolution/PulseWaveforms.h"
#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Deconvolver = RichardsonLucy<unsigned short, ZeroCrossing>;

/// A waveform with the range of a case.
WavePtr waveWithRangeOf(RichardsonLucyCase const& known) {
  WavePtr wave(new WavePoints<unsigned short>());
  wave->length = static_cast<std::uint32_t>(known.samples.size());
  wave->noise = known.noise;
  wave->globalStart = known.globalStart;
  wave->globalEnd = known.globalEnd;
  return wave;
}

Peak rawPeak(double idx, QUALITY quality = GOOD) {
  return {100.0, idx, 0.0, RAW, quality, 0.0, 0, 0.0F};
}

TEST(RichardsonLucy, EchoesAgreeWithNumPy) {
  for (RichardsonLucyCase const& known : Testing::richardsonLucyCases()) {
    SCOPED_TRACE(known.kind);
    Deconvolver deconvolver(skewedScanner(known.upSampling), 60);
    WavePtr const wave = waveWithRangeOf(known);
    EXPECT_EQ(deconvolver.apply(known.samples.data(), wave), 1);
    ASSERT_EQ(wave->peaks.size(), known.peaks.size());
    std::size_t i = 0;
    for (Peak const& peak : wave->peaks) {
      EXPECT_NEAR(peak.idx, known.peaks[i].idx, 1e-6);
      // A value scaled to an integer may be truncated to the one below.
      EXPECT_NEAR(peak.amplitude, known.peaks[i].amplitude, 1.0);
      EXPECT_EQ(peak.type, RICHARDSON_LUCY);
      EXPECT_EQ(peak.quality, GOOD);
      ++i;
    }
  }
}

TEST(RichardsonLucy, FindsConstructedEchoesAtTheirPositions) {
  Samples const samples = waveformWithEchoes(70, {{15.0, 800.0}, {26.0, 350.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 70);
  WavePtr const wave = waveOf(samples, scanner);
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->peaks.size(), 2U);
  EXPECT_NEAR(wave->peaks.front().idx, positionOf(15.0), gridSamples);
  EXPECT_NEAR(std::next(wave->peaks.begin())->idx, positionOf(26.0), gridSamples);
  // The deconvolved signal is scaled to the maximum of the waveform.
  EXPECT_NEAR(wave->peaks.front().amplitude, wave->maxAmplitude, 1.0);
}

TEST(RichardsonLucy, ALongerPlannedLengthGivesTheSameEchoes) {
  Samples const samples = waveformWithEchoes(70, {{15.0, 800.0}, {24.0, 350.0}});
  ScannerDevice const scanner = skewedScanner();
  WavePtr const close = waveOf(samples, scanner);
  WavePtr const wide = waveOf(samples, scanner);
  Deconvolver(scanner, close->lengthCropped + 1).apply(samples.data(), close);
  Deconvolver(scanner, 300).apply(samples.data(), wide);
  ASSERT_EQ(close->peaks.size(), wide->peaks.size());
  for (auto a = close->peaks.begin(), b = wide->peaks.begin(); a != close->peaks.end(); ++a, ++b) {
    EXPECT_EQ(a->idx, b->idx);
    EXPECT_NEAR(a->amplitude, b->amplitude, 1.0);
  }
}

TEST(RichardsonLucy, AWaveformLongerThanPlannedForIsSafe) {
  Samples const samples = waveformWithEchoes(200, {{15.0, 800.0}, {150.0, 350.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 25);
  EXPECT_EQ(deconvolver.apply(samples.data(), waveOf(samples, scanner)), 1);
}

TEST(RichardsonLucy, APreviousWaveformHasNoEffect) {
  Samples const longer = waveformWithEchoes(90, {{15.0, 2000.0}, {50.0, 900.0}});
  Samples const shorter = waveformWithEchoes(60, {{20.0, 300.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver fresh(scanner, 90);
  Deconvolver used(scanner, 90);
  used.apply(longer.data(), waveOf(longer, scanner));
  WavePtr const expected = waveOf(shorter, scanner);
  WavePtr const found = waveOf(shorter, scanner);
  fresh.apply(shorter.data(), expected);
  used.apply(shorter.data(), found);
  ASSERT_EQ(found->peaks.size(), expected->peaks.size());
  EXPECT_EQ(found->peaks.front().idx, expected->peaks.front().idx);
  EXPECT_EQ(found->peaks.front().amplitude, expected->peaks.front().amplitude);
}

TEST(RichardsonLucy, DoesNotReadOutsideTheWaveform) {
  // The range ends at the second to last sample, the latest possible end.
  Samples const samples = waveformWithEchoes(40, {{1.0, 300.0}, {30.0, 800.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 60);
  Testing::withGuardedCopies(samples, [&](unsigned short const* copy) {
    WavePtr const wave = waveOf(samples, scanner);
    ASSERT_EQ(wave->globalEnd, 38U);
    EXPECT_EQ(deconvolver.apply(copy, wave), 1);
    EXPECT_GE(wave->size(), 2U);
  });
}

TEST(RichardsonLucy, SetsTypeAndPositionOfAllEchoesInTheList) {
  Samples const samples = waveformWithEchoes(60, {{20.0, 500.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->push_back(rawPeak(40.0));
  wave->push_back(rawPeak(41.0, EXCEEDS_RANGE));
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->size(), 2U);
  EXPECT_EQ(wave->peaks.front().type, RICHARDSON_LUCY);
  // 40 / 5 + globalStart - 2.5
  EXPECT_EQ(wave->peaks.front().idx, 5.5 + wave->globalStart);
  EXPECT_NEAR(std::next(wave->peaks.begin())->idx, positionOf(20.0), gridSamples);
}

TEST(RichardsonLucy, WithoutUpSamplingPositionsAreShiftedByGlobalStart) {
  Samples const samples = waveformWithEchoes(60, {{20.0, 500.0}});
  ScannerDevice const scanner = skewedScanner(1);
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->push_back(rawPeak(7.25));
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->size(), 2U);
  EXPECT_EQ(wave->peaks.front().idx, 7.25 + wave->globalStart);
  // The centre of the kernel is value 5 of 12.
  EXPECT_EQ(std::next(wave->peaks.begin())->idx, 25.0);
}

TEST(RichardsonLucy, TheLastValueMayBeAnEcho) {
  // The range ends in the rise of the pulse. Its echo would be after the end, so the deconvolved signal rises
  // to its last value, that of sample 23.
  Samples const samples = waveformWithEchoes(60, {{20.0, 500.0}});
  ScannerDevice const scanner = skewedScanner(1);
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->globalStart = 15;
  wave->globalEnd = 24;
  deconvolver.apply(samples.data(), wave);
  ASSERT_FALSE(wave->peaks.empty());
  EXPECT_EQ(wave->peaks.back().idx, 23.0);
}

TEST(RichardsonLucy, AnIndexOfZeroMapsToBeforeGlobalStart) {
  Samples const samples = waveformWithEchoes(60, {{0.5, 500.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->push_back(rawPeak(0.0));
  deconvolver.apply(samples.data(), wave);
  EXPECT_EQ(wave->peaks.front().idx, wave->globalStart - 2.5);
}

TEST(RichardsonLucy, MarksAfterPulsesOfStrongEchoes) {
  ScannerDevice scanner = skewedScanner();
  scanner.afterpulse_offset = 5;
  scanner.afterpulse_width = 2;
  Samples const samples = waveformWithEchoes(80, {{15.0, 1500.0}, {40.0, 200.0}});
  Deconvolver deconvolver(scanner, 80);
  WavePtr const wave = waveOf(samples, scanner);
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->size(), 2U);
  EXPECT_EQ(wave->peaks.front().quality, GOOD);
  EXPECT_EQ(wave->peaks.back().quality, AFTERPULS);
  EXPECT_EQ(wave->peaks.back().classification, Quorvane::TarnClass::afterpulse);
}

TEST(RichardsonLucy, NoSignalGivesNoEchoes) {
  Samples const samples = waveformWithEchoes(30, {{10.0, 300.0}});
  Deconvolver deconvolver(skewedScanner(), 30);
  EXPECT_EQ(deconvolver.apply(samples.data(), WavePtr()), 1);
  EXPECT_EQ(deconvolver.apply(nullptr, waveOf(samples, skewedScanner())), 1);
  struct Range {
    std::uint32_t start, end;
  };
  // Empty, reversed (as in waveforms of one or two samples), and beyond the end of the waveform.
  for (Range const range : {Range{0, 0}, Range{7, 7}, Range{8, 7}, Range{1, 0}, Range{1, 4294967295U},
                            Range{4294967295U, 0}, Range{5, 30}}) {
    WavePtr const wave = waveOf(samples, skewedScanner());
    wave->globalStart = range.start;
    wave->globalEnd = range.end;
    wave->push_back(rawPeak(3.0, EXCEEDS_RANGE));
    EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
    ASSERT_EQ(wave->size(), 1U) << range.start << " to " << range.end;
    EXPECT_EQ(wave->peaks.front().type, RAW);
    EXPECT_EQ(wave->peaks.front().idx, 3.0);
  }
}

TEST(RichardsonLucy, ASignalOfOneValueGivesNoEchoes) {
  Samples const samples = waveformWithEchoes(30, {{10.0, 300.0}});
  Deconvolver deconvolver(skewedScanner(1), 30);
  WavePtr const wave = waveOf(samples, skewedScanner(1));
  wave->globalStart = 12;
  wave->globalEnd = 13;
  EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
  EXPECT_TRUE(wave->peaks.empty());
  wave->globalEnd = 14;  // two values
  EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
  EXPECT_FALSE(wave->peaks.empty());
}

TEST(RichardsonLucy, ARangeBelowTheNoiseGivesNoEchoes) {
  Samples const samples(30, 10);
  for (std::uint32_t const up : {1U, 5U}) {
    Deconvolver deconvolver(skewedScanner(up), 30);
    WavePtr const wave = waveOf(samples, skewedScanner(up));
    wave->globalStart = 3;
    wave->globalEnd = 20;
    EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
    EXPECT_TRUE(wave->peaks.empty());
  }
}

TEST(RichardsonLucy, WaveformsOfOneOrTwoSamplesGiveNoEchoes) {
  Deconvolver deconvolver(skewedScanner(), 30);
  for (std::size_t const length : {1UL, 2UL}) {
    Samples const samples(length, 500);
    WavePtr const wave = waveOf(samples, skewedScanner());
    EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
    EXPECT_TRUE(wave->peaks.empty());
  }
}

}  // namespace
}  // namespace FullWaveform
