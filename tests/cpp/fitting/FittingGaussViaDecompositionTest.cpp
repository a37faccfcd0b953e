#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <list>
#include <vector>

#include <fullwaveform/host/TarnClass.h>
#include <gtest/gtest.h>

#include "DecompositionRecords.h"
#include "support/TestWaveforms.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

using Testing::Samples;
using Testing::waveformOf;
using Decomposition = FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;
using Peaks = std::vector<Peak>;
using Types = std::vector<unsigned>;
namespace Tolerance = Testing::Tolerance;

constexpr unsigned first = GAUSS_DECOMPOSITION_1;
constexpr unsigned second = GAUSS_DECOMPOSITION_2;
constexpr int noise = 20;  // counts, the baseline of the scenes

enum Power : unsigned char { Normal = 0, Low = 1 };

struct Echo {
  double height;
  double position;
  double width;
};

/// Echoes on a baseline, in whole counts.
Samples sceneOf(std::size_t length, std::vector<Echo> const& echoes, double baseline = 20.0) {
  Samples samples(length);
  for (std::size_t i = 0; i < length; ++i) {
    double value = baseline;
    for (Echo const& echo : echoes) {
      double const widths = (static_cast<double>(i) - echo.position) / echo.width;
      value += echo.height * std::exp(-0.5 * widths * widths);
    }
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  return samples;
}

WavePtr waveOf(Samples const& samples, unsigned char power = Normal, int level = noise) {
  ScannerDevice scanner;
  scanner.afterpulse_offset = 20;
  scanner.afterpulse_width = 3;
  return WavePtr(new WavePoints<unsigned short>(samples.data(), power, 0.0, 0.0,
                                                static_cast<int>(samples.size()), level, scanner));
}

Peaks peaksOf(WavePtr const& wave) {
  return {wave->peaks.begin(), wave->peaks.end()};
}

Peaks decompose(Samples const& samples, unsigned char power = Normal, int level = noise) {
  WavePtr const wave = waveOf(samples, power, level);
  EXPECT_TRUE(Decomposition().apply(samples.data(), wave));
  return peaksOf(wave);
}

Types typesOf(Peaks const& peaks) {
  Types types;
  for (Peak const& peak : peaks) {
    types.push_back(peak.type);
  }
  return types;
}

void expectEcho(Peak const& peak, Echo const& echo) {
  EXPECT_NEAR(peak.idx, echo.position, Tolerance::roundedSamples);
  EXPECT_NEAR(peak.std, echo.width, Tolerance::roundedSamples);
  EXPECT_NEAR(peak.amplitude, echo.height, echo.height * Tolerance::roundedAmplitudeRelative);
}

/// A strong echo of 1800 counts with a weak one on its shoulder, which is no maximum of the signal.
std::vector<Echo> const shoulder{{1780.0, 30.0, 2.0}, {300.0, 35.5, 1.5}};

TEST(FittingGaussViaDecomposition, EmptyPointerIsRefused) {
  Samples const samples = sceneOf(40, {{1000.0, 20.0, 2.0}});
  EXPECT_FALSE(Decomposition().apply(samples.data(), {}));
}

TEST(FittingGaussViaDecomposition, OneEchoIsRecovered) {
  Echo const echo{1000.0, 20.3, 2.2};
  Peaks const peaks = decompose(sceneOf(60, {echo}));
  ASSERT_EQ(peaks.size(), 1U);
  expectEcho(peaks[0], echo);
  EXPECT_EQ(peaks[0].type, GAUSS_DECOMPOSITION_1);
  EXPECT_EQ(peaks[0].quality, GOOD);
  EXPECT_EQ(peaks[0].time, 0.0);
  EXPECT_EQ(peaks[0].classification, 0);
  EXPECT_EQ(peaks[0].reflectance, 0.0F);
}

TEST(FittingGaussViaDecomposition, OverlappingEchoesAreSeparated) {
  std::vector<Echo> const echoes{{1500.0, 20.3, 2.0}, {900.0, 26.2, 2.2}, {400.0, 33.4, 1.8}};
  Peaks const peaks = decompose(sceneOf(60, echoes));
  ASSERT_EQ(peaks.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    expectEcho(peaks[i], echoes[i]);
  }
}

TEST(FittingGaussViaDecomposition, AgreesWithTheDecompositionInSciPy) {
  Decomposition decomposition;  // one object for all: no state is carried over
  auto sample = Testing::decompositionSamples.begin();
  auto expected = Testing::decompositionGaussians.begin();
  for (Testing::DecompositionRecord const& record : Testing::decompositionRecords) {
    Samples const samples(sample, sample + static_cast<std::ptrdiff_t>(record.samples));
    sample += static_cast<std::ptrdiff_t>(record.samples);
    WavePtr const wave = waveOf(samples, record.isLowPower ? Low : Normal, record.noise);
    ASSERT_TRUE(decomposition.apply(samples.data(), wave));
    ASSERT_EQ(wave->size(), record.gaussians);
    for (Peak const& peak : wave->peaks) {
      EXPECT_EQ(peak.type, expected->loop == 1 ? first : second);
      EXPECT_NEAR(peak.idx, expected->position, Tolerance::refinedSamples);
      EXPECT_NEAR(peak.std, expected->width, Tolerance::refinedSamples);
      EXPECT_NEAR(peak.amplitude, expected->amplitude,
                  expected->amplitude * Tolerance::refinedAmplitudeRelative);
      ++expected;
    }
  }
}

TEST(FittingGaussViaDecomposition, WeakLowPowerSignalGetsASecondLoop) {
  Samples const samples = sceneOf(80, shoulder);
  ASSERT_EQ(waveOf(samples)->maxAmplitude, 1800);
  Peaks const peaks = decompose(samples, Low);
  ASSERT_EQ(typesOf(peaks), (Types{first, second}));
  for (std::size_t i = 0; i < 2; ++i) {
    expectEcho(peaks[i], shoulder[i]);
  }
}

TEST(FittingGaussViaDecomposition, StrongSignalGetsOneLoop) {
  Samples samples = sceneOf(80, shoulder);
  samples[30] = 1801;
  EXPECT_EQ(typesOf(decompose(samples, Low)), (Types{first}));
}

TEST(FittingGaussViaDecomposition, NormalChannelGetsOneLoop) {
  Samples const samples = sceneOf(80, shoulder);
  EXPECT_EQ(typesOf(decompose(samples, Normal)), (Types{first}));
  EXPECT_EQ(typesOf(decompose(samples, 2)), (Types{first}));
}

TEST(FittingGaussViaDecomposition, SecondLoopWithoutPeaksKeepsTheFirst) {
  Echo const echo{1000.0, 20.3, 2.2};
  Peaks const peaks = decompose(sceneOf(60, {echo}), Low);
  ASSERT_EQ(typesOf(peaks), (Types{first}));
  expectEcho(peaks[0], echo);
}

TEST(FittingGaussViaDecomposition, EchoesAreOrderedBySegmentAndLoop) {
  // The baseline is below the noise and splits the waveform into two segments.
  std::vector<Echo> echoes = shoulder;
  echoes.push_back({900.0, 60.0, 2.0});
  Samples const samples = sceneOf(80, echoes, 15.0);
  ASSERT_EQ(waveOf(samples, Low)->startEnd.size(), 2U);
  Peaks const peaks = decompose(samples, Low);
  ASSERT_EQ(typesOf(peaks), (Types{first, second, first}));
  EXPECT_NEAR(peaks[0].idx, 30.0, 0.1);
  EXPECT_NEAR(peaks[1].idx, 35.5, 0.2);
  EXPECT_NEAR(peaks[2].idx, 60.0, 0.1);
}

/// An echo whose maximum lies before sample 1, where the segment of a waveform that begins above the noise
/// starts; then a neighbour, and a third echo with a weak one on its shoulder.
Samples echoBeforeItsSegment() {
  return sceneOf(40, {{600.0, 0.8, 1.5}, {1500.0, 6.0, 1.8}, {1200.0, 25.0, 2.0}, {200.0, 30.5, 1.5}});
}

TEST(FittingGaussViaDecomposition, RemovalLeadsToOneMoreRefinement) {
  // Least squares with two Gaussians over samples 1 to 38, from SciPy's least_squares.
  Peaks const peaks = decompose(echoBeforeItsSegment(), Normal, 19);
  ASSERT_EQ(peaks.size(), 2U);
  EXPECT_NEAR(peaks[0].idx, 5.6174778, Tolerance::largeResidualSamples);
  EXPECT_NEAR(peaks[0].std, 2.3547769, Tolerance::largeResidualSamples);
  EXPECT_NEAR(peaks[0].amplitude, 1374.248, 1374.248 * Tolerance::largeResidualAmplitudeRelative);
  EXPECT_NEAR(peaks[1].idx, 25.1225436, Tolerance::largeResidualSamples);
  EXPECT_NEAR(peaks[1].std, 2.2074885, Tolerance::largeResidualSamples);
  EXPECT_NEAR(peaks[1].amplitude, 1160.680, 1160.680 * Tolerance::largeResidualAmplitudeRelative);
}

TEST(FittingGaussViaDecomposition, RemovalEndsTheSegmentBeforeTheSecondLoop) {
  EXPECT_EQ(typesOf(decompose(echoBeforeItsSegment(), Low, 19)), (Types{first, first}));
}

TEST(FittingGaussViaDecomposition, EchoOutsideItsSegmentIsRemovedInsideTheWaveformToo) {
  // The segment contains only the falling side: the Gaussian is at 20, inside the waveform.
  Samples const samples = sceneOf(40, {{1000.0, 20.0, 2.0}});
  WavePtr const wave = waveOf(samples);
  wave->startEnd = {{22, 30}};
  EXPECT_TRUE(Decomposition().apply(samples.data(), wave));
  EXPECT_TRUE(wave->peaks.empty());
}

TEST(FittingGaussViaDecomposition, FlatSegmentKeepsAnEchoOfNan) {
  // The largest sample and its neighbours are equal. NaN is neither refined nor removed, and is left out
  // of the residual: the second loop finds the same echo again.
  Peaks const peaks = decompose(Samples(12, 50), Low);
  ASSERT_EQ(typesOf(peaks), (Types{first, second}));
  for (Peak const& peak : peaks) {
    EXPECT_TRUE(std::isnan(peak.idx));
    EXPECT_TRUE(std::isnan(peak.std));
    EXPECT_TRUE(std::isnan(peak.amplitude));
  }
}

TEST(FittingGaussViaDecomposition, NanStartOfTheSecondLoopBlocksItsRefinement) {
  // The plateau, whose first sample of the segment equals both neighbours, is no maximum: the second loop
  // takes it as the largest residual. The echo of the first loop keeps its digits; refined once more it would
  // not.
  Samples samples = sceneOf(60, {{1000.0, 30.3, 2.2}});
  std::fill_n(samples.begin(), 6, static_cast<unsigned short>(noise + 25));
  Peaks const firstLoop = decompose(samples, Normal);
  Peaks const both = decompose(samples, Low);
  ASSERT_EQ(typesOf(firstLoop), (Types{first}));
  ASSERT_EQ(typesOf(both), (Types{first, second}));
  EXPECT_EQ(both[0].idx, firstLoop[0].idx);
  EXPECT_EQ(both[0].std, firstLoop[0].std);
  EXPECT_EQ(both[0].amplitude, firstLoop[0].amplitude);
  EXPECT_TRUE(std::isnan(both[1].std));
}

TEST(FittingGaussViaDecomposition, RemovalOfTheOnlyEchoLeavesNone) {
  // Falls from the first sample on: the Gaussian's maximum is before the waveform.
  Samples const samples = sceneOf(40, {{1500.0, -3.0, 3.0}});
  EXPECT_TRUE(decompose(samples, Normal).empty());
  EXPECT_TRUE(decompose(samples, Low).empty());
}

TEST(FittingGaussViaDecomposition, OnlyTwiceTheNoiseStartsAnEcho) {
  EXPECT_TRUE(decompose(waveformOf(20, 50, {{9, {75, 100, 75}}}), Normal, 50).empty());
  EXPECT_EQ(decompose(waveformOf(20, 50, {{9, {75, 101, 75}}}), Normal, 50).size(), 1U);
}

TEST(FittingGaussViaDecomposition, MaximumNeedsADifferenceOfTwoCounts) {
  Samples const ripple = waveformOf(40, 15, {{9, {100, 400, 900, 400, 100, 100, 101, 100, 100, 100}}});
  EXPECT_EQ(decompose(ripple).size(), 1U);
  Samples const rise = waveformOf(40, 15, {{9, {100, 400, 900, 400, 100, 100, 102, 100, 100, 100}}});
  EXPECT_EQ(decompose(rise).size(), 2U);
}

TEST(FittingGaussViaDecomposition, SegmentsUnderFourSamplesAreSkipped) {
  Samples const samples = sceneOf(40, {{1000.0, 20.0, 1.0}});
  WavePtr const wave = waveOf(samples);
  wave->startEnd = {{19, 21}};
  EXPECT_TRUE(Decomposition().apply(samples.data(), wave));
  EXPECT_TRUE(wave->peaks.empty());
  wave->startEnd = {{19, 22}};
  EXPECT_TRUE(Decomposition().apply(samples.data(), wave));
  EXPECT_EQ(wave->size(), 1U);
}

TEST(FittingGaussViaDecomposition, MoreParametersThanSamplesKeepTheStarts) {
  // Above the noise 32, 128, 64, 128, 32: six parameters, four samples. In powers of two the logarithms are
  // 5, 7, 6: vertex 1/6 sample after the middle, height 2^(7 + 1/24), width 1/sqrt(3 ln 2).
  Samples const samples = waveformOf(20, 4, {{9, {36, 132, 68, 132, 36}}});
  WavePtr const wave = waveOf(samples, Normal, 4);
  wave->startEnd = {{9, 12}};
  EXPECT_TRUE(Decomposition().apply(samples.data(), wave));
  Peaks const peaks = peaksOf(wave);
  ASSERT_EQ(peaks.size(), 2U);
  EXPECT_NEAR(peaks[0].idx, 10.0 + 1.0 / 6.0, Tolerance::fitSamples);
  EXPECT_NEAR(peaks[1].idx, 12.0 - 1.0 / 6.0, Tolerance::fitSamples);
  for (Peak const& peak : peaks) {
    EXPECT_NEAR(peak.amplitude, 131.75067, 131.75067 * Tolerance::fitAmplitudeRelative);
    EXPECT_NEAR(peak.std, 0.6934683, Tolerance::fitSamples);
    EXPECT_EQ(peak.type, GAUSS_DECOMPOSITION_1);
  }
}

TEST(FittingGaussViaDecomposition, StartWithoutAWidthIsNeitherRefinedNorRemoved) {
  // Above the noise 2^12, 2^10, 2^9, then falling: the logarithms are concave up, with a vertex 2.5 samples
  // on, at 2^8.875 counts, and a NaN width. The marking lets NaN pass, and the residual ignores it:
  // the second loop finds the same again.
  Samples const samples{4116, 1044, 532, 300, 200, 150, 110, 80, 60, 50, 40, 30, 25, 20, 20, 20};
  Peaks const peaks = decompose(samples, Low);
  ASSERT_EQ(typesOf(peaks), (Types{first, second}));
  for (Peak const& peak : peaks) {
    EXPECT_TRUE(std::isnan(peak.std));
    EXPECT_NEAR(peak.idx, 2.5, Tolerance::fitSamples);
    EXPECT_NEAR(peak.amplitude, 469.5061, 469.5061 * Tolerance::fitAmplitudeRelative);
  }
  EXPECT_EQ(typesOf(decompose(samples, Normal)), (Types{first}));
}

TEST(FittingGaussViaDecomposition, ExistingPeaksAreReplaced) {
  Peak const existing(1.0, 2.0, 3.0, RAW, GOOD, 4.0, 5, 6.0F);
  Samples const samples = sceneOf(60, {{1000.0, 20.3, 2.2}});
  WavePtr const wave = waveOf(samples);
  wave->peaks = {existing, existing};
  EXPECT_TRUE(Decomposition().apply(samples.data(), wave));
  EXPECT_EQ(typesOf(peaksOf(wave)), (Types{first}));

  // Also when there is no segment at all.
  Samples const quiet(60, 10);
  WavePtr const quietWave = waveOf(quiet);
  quietWave->peaks = {existing};
  EXPECT_TRUE(Decomposition().apply(quiet.data(), quietWave));
  EXPECT_TRUE(quietWave->peaks.empty());
}

TEST(FittingGaussViaDecomposition, AfterPulsesAreMarkedAndKept) {
  Peaks const peaks = decompose(sceneOf(80, {{1500.0, 20.0, 2.0}, {900.0, 40.0, 2.0}}));
  ASSERT_EQ(peaks.size(), 2U);
  EXPECT_EQ(peaks[0].quality, GOOD);
  EXPECT_EQ(peaks[1].quality, AFTERPULS);
  EXPECT_EQ(peaks[1].classification, Quorvane::TarnClass::afterpulse);
  expectEcho(peaks[1], {900.0, 40.0, 2.0});
}

TEST(FittingGaussViaDecomposition, WaveformIsNotRetained) {
  Samples const samples = sceneOf(80, shoulder);
  WavePtr const wave = waveOf(samples, Low);
  Decomposition decomposition;
  EXPECT_TRUE(decomposition.apply(samples.data(), wave));
  EXPECT_EQ(wave->record().strongCount(), 1U);
}

TEST(FittingGaussViaDecomposition, ScannerHasNoEffect) {
  Samples const samples = sceneOf(80, shoulder);
  WavePtr const wave = waveOf(samples, Low);
  EXPECT_TRUE(Decomposition(ScannerDevice()).apply(samples.data(), wave));
  EXPECT_EQ(typesOf(peaksOf(wave)), (Types{first, second}));
}

TEST(FittingGaussViaDecomposition, ShortestWaveformsAreNotReadOutside) {
  Samples const rising{60, 170, 420, 900, 500, 250};
  for (std::size_t length = 1; length <= rising.size(); ++length) {
    Samples const record(rising.begin(), rising.begin() + static_cast<std::ptrdiff_t>(length));
    Testing::withGuardedCopies(record, [&](unsigned short const* samples) {
      WavePtr const wave(new WavePoints<unsigned short>(samples, Low, 0.0, 0.0, static_cast<int>(length),
                                                        noise, ScannerDevice()));
      EXPECT_TRUE(Decomposition().apply(samples, wave));
      // Four samples from the first to the last of a segment {1, length - 2} need a waveform of six.
      EXPECT_EQ(wave->peaks.empty(), length < 6) << length;
    });
  }
}

TEST(FittingGaussViaDecomposition, EchoesAtTheBordersAreNotReadOutside) {
  for (Samples const& scene : {sceneOf(24, {{1500.0, -1.0, 3.0}, {900.0, 11.0, 2.0}, {1500.0, 24.0, 3.0}}),
                               sceneOf(24, {{1500.0, 1.0, 2.0}, {1500.0, 22.0, 2.0}})}) {
    Testing::withGuardedCopies(scene, [&](unsigned short const* samples) {
      WavePtr const wave(new WavePoints<unsigned short>(
          samples, Low, 0.0, 0.0, static_cast<int>(scene.size()), noise, ScannerDevice()));
      EXPECT_TRUE(Decomposition().apply(samples, wave));
      EXPECT_FALSE(wave->peaks.empty());
    });
  }
}

TEST(FittingGaussViaDecomposition, MissingSamplesGiveNoEchoes) {
  WavePtr const empty(new WavePoints<unsigned short>());
  EXPECT_TRUE(Decomposition().apply(nullptr, empty));
  EXPECT_TRUE(empty->peaks.empty());

  Samples const samples = sceneOf(60, {{1000.0, 20.3, 2.2}});
  WavePtr const wave = waveOf(samples);
  EXPECT_TRUE(Decomposition().apply(nullptr, wave));
  EXPECT_TRUE(wave->peaks.empty());
}

TEST(FittingGaussViaDecomposition, SegmentsBeyondTheWaveformAreSkipped) {
  Samples const samples = sceneOf(60, {{1000.0, 20.3, 2.2}});
  Testing::withGuardedCopies({samples.begin(), samples.begin() + 22}, [&](unsigned short const* cut) {
    WavePtr const wave = waveOf(samples);
    wave->length = 22;
    EXPECT_TRUE(Decomposition().apply(cut, wave));
    EXPECT_TRUE(wave->peaks.empty());
  });
}

}  // namespace
}  // namespace FullWaveform
