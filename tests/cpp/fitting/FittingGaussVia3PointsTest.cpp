#include <fullwaveform/fitting/FittingGaussVia3Points.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestScanner.h"
#include "support/TestWaveforms.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

using Testing::Samples;
using Testing::waveformOf;
using Fitting = FittingGaussVia3Points<unsigned short, ZeroCrossing>;
namespace Tolerance = Testing::Tolerance;

ScannerDevice scannerWith(unsigned offset, unsigned width) {
  ScannerDevice scanner;
  scanner.afterpulse_offset = offset;
  scanner.afterpulse_width = width;
  return scanner;
}

WavePtr waveOf(Samples const& samples, int noise) {
  return WavePtr(new WavePoints<unsigned short>(samples.data(), 0, 0.0, 0.0, static_cast<int>(samples.size()),
                                                noise, scannerWith(5, 2)));
}

struct Outcome {
  bool ran;
  std::vector<Peak> peaks;
};

Outcome fit(Samples const& samples, int noise, std::list<Peak> const& existing = {}) {
  WavePtr const wave = waveOf(samples, noise);
  wave->peaks = existing;
  bool const ran = Fitting().apply(samples.data(), wave);
  return {ran, {wave->peaks.begin(), wave->peaks.end()}};
}

std::vector<double> positions(Outcome const& outcome) {
  std::vector<double> found;
  for (Peak const& peak : outcome.peaks) {
    found.push_back(peak.idx);
  }
  return found;
}

using Positions = std::vector<double>;

TEST(FittingGaussVia3Points, OneEchoIsFitted) {
  Outcome const outcome = fit(waveformOf(20, 5, {{9, {100, 200, 100}}}), 20);
  EXPECT_TRUE(outcome.ran);
  ASSERT_EQ(outcome.peaks.size(), 1U);
  Peak const& peak = outcome.peaks[0];
  EXPECT_EQ(peak.idx, 10.0);
  EXPECT_NEAR(peak.amplitude, 200.0, 200.0 * Tolerance::fitAmplitudeRelative);
  EXPECT_NEAR(peak.std, 0.8493218, Tolerance::fitSamples);
  EXPECT_EQ(peak.type, GAUSS_3POINTS);
  EXPECT_EQ(peak.quality, GOOD);
  EXPECT_EQ(peak.time, 0.0);
}

TEST(FittingGaussVia3Points, EchoesOfAllSegmentsAreSorted) {
  Samples const samples =
      waveformOf(40, 5, {{5, {100, 200, 100}}, {15, {100, 200, 200, 100}}, {30, {60, 120, 60}}});
  EXPECT_EQ(positions(fit(samples, 20)), (Positions{6.0, 16.5, 31.0}));
}

TEST(FittingGaussVia3Points, RoundedGaussianIsRecovered) {
  for (double const width : {0.9, 1.5, 2.5}) {
    for (double offset = -0.5; offset < 0.5; offset += 0.1) {
      Samples samples(41);
      for (std::size_t i = 0; i < samples.size(); ++i) {
        double const x = static_cast<double>(i) - 20.0 - offset;
        samples[i] =
            static_cast<unsigned short>(std::lround(3000.0 * std::exp(-0.5 * x * x / (width * width))));
      }
      Outcome const outcome = fit(samples, 20);
      ASSERT_EQ(outcome.peaks.size(), 1U);
      EXPECT_NEAR(outcome.peaks[0].idx, 20.0 + offset, Tolerance::roundedSamples);
      EXPECT_NEAR(outcome.peaks[0].std, width, Tolerance::roundedWidthSamples);
      EXPECT_NEAR(outcome.peaks[0].amplitude, 3000.0, 3000.0 * Tolerance::roundedAmplitudeRelative);
    }
  }
}

// {8 -> 10} is two long, {8 -> 11} is three.
TEST(FittingGaussVia3Points, RangeOfTwoIsTooShortAndOfThreeIsEnough) {
  Peak const existing(1.0, 2.0, 0.0, FLAW, EXCEEDS_RANGE, -1.0, 0, 0.0F);
  Outcome const tooShort = fit(waveformOf(20, 5, {{9, {200}}}), 20, {existing});
  EXPECT_FALSE(tooShort.ran);
  ASSERT_EQ(tooShort.peaks.size(), 1U);
  EXPECT_EQ(tooShort.peaks[0].type, FLAW);
  EXPECT_EQ(tooShort.peaks[0].quality, EXCEEDS_RANGE);
  Outcome const enough = fit(waveformOf(20, 5, {{9, {200, 190}}}), 20);
  EXPECT_TRUE(enough.ran);
  EXPECT_EQ(enough.peaks.size(), 1U);
}

// Next to a clear echo at 7, so that the fallback is not used.
TEST(FittingGaussVia3Points, MaximaExceedOneNeighbourByTwoCounts) {
  EXPECT_EQ(fit({5, 5, 100, 102, 101, 101, 150, 300, 150, 5, 5}, 20).peaks.size(), 2U);
  EXPECT_EQ(fit({5, 5, 101, 102, 101, 101, 150, 300, 150, 5, 5}, 20).peaks.size(), 1U);
}

TEST(FittingGaussVia3Points, WaveformWithoutSegmentsIsTooShort) {
  EXPECT_FALSE(fit(Samples(20, 5), 20).ran);
}

TEST(FittingGaussVia3Points, ZeroNeighbourIsReadAsOne) {
  // 1, 8, 1: logarithms 0, 3 ln 2, 0; curvature -3 ln 2.
  Outcome const outcome = fit({0, 0, 0, 8, 0, 0, 5, 0, 0}, 0);
  ASSERT_EQ(outcome.peaks.size(), 2U);
  EXPECT_EQ(outcome.peaks[0].idx, 3.0);
  EXPECT_NEAR(outcome.peaks[0].amplitude, 8.0, 8.0 * Tolerance::fitAmplitudeRelative);
  EXPECT_NEAR(outcome.peaks[0].std, 0.4903562, Tolerance::fitSamples);  // sqrt(0.5 / (3 ln 2))
}

TEST(FittingGaussVia3Points, AfterPulsesAreMarkedAndKept) {
  // Strongest 1000 at 10; window from 13 on.
  Samples const samples =
      waveformOf(40, 5, {{9, {500, 1000, 500}}, {20, {100, 200, 100}}, {3, {60, 120, 60}}});
  Outcome const outcome = fit(samples, 20);
  ASSERT_EQ(positions(outcome), (Positions{4.0, 10.0, 21.0}));
  EXPECT_EQ(outcome.peaks[0].quality, GOOD);
  EXPECT_EQ(outcome.peaks[1].quality, GOOD);
  EXPECT_EQ(outcome.peaks[2].quality, AFTERPULS);
  EXPECT_EQ(outcome.peaks[2].classification, 7);
  EXPECT_EQ(outcome.peaks[2].type, GAUSS_3POINTS);
}

TEST(FittingGaussVia3Points, AfterPulseTestUsesTheRawPosition) {
  // Raw at 13, the first index of the window; fitted at about 12.5, before the window.
  Samples const samples = waveformOf(40, 5, {{9, {500, 1000, 500, 50, 100, 50}}});
  Samples slanted = samples;
  slanted[12] = 99;
  Outcome const outcome = fit(slanted, 20);
  ASSERT_EQ(outcome.peaks.size(), 2U);
  EXPECT_LT(outcome.peaks[1].idx, 13.0);
  EXPECT_EQ(outcome.peaks[1].quality, AFTERPULS);
}

TEST(FittingGaussVia3Points, EchoesOutsideTheBoundsAreRemoved) {
  // 2000 x 2^1.125 = 4362 counts are above the digitiser limit.
  Samples const samples = waveformOf(40, 5, {{9, {100, 200, 100}}, {20, {2000, 4000, 4000, 2000}}});
  EXPECT_EQ(positions(fit(samples, 20)), (Positions{10.0}));
}

TEST(FittingGaussVia3Points, ExistingPeaksAreFittedUnlessTheyAreBad) {
  Samples const samples = waveformOf(40, 5, {{9, {100, 200, 100}}, {20, {100, 200, 200, 100}}});
  Peak const bad(1.0, 10.0, 0.0, RAW, EXCEEDS_RANGE, 0.0, 0, 0.0F);
  Peak const worse(1.0, 10.0, 0.0, RAW, static_cast<QUALITY>(3), 0.0, 0, 0.0F);
  Peak const existing(1.0, 21.9, 0.0, RAW, GOOD, 0.0, 33, 0.0F);
  Outcome const outcome = fit(samples, 20, {existing, bad, worse});
  // The sort is stable: the existing peak stays before the one found at the same position.
  ASSERT_EQ(positions(outcome), (Positions{10.0, 21.5, 21.5}));
  EXPECT_EQ(outcome.peaks[1].classification, 33);
  EXPECT_EQ(outcome.peaks[2].classification, 0);
}

// Without a maximum the largest sample, the first in the range, is fitted: 50, 50, 50.
TEST(FittingGaussVia3Points, FlatWaveformKeepsAnEchoOfNan) {
  Outcome const outcome = fit(Samples(8, 50), 20);
  EXPECT_TRUE(outcome.ran);
  ASSERT_EQ(outcome.peaks.size(), 1U);
  EXPECT_TRUE(std::isnan(outcome.peaks[0].idx));
  EXPECT_TRUE(std::isnan(outcome.peaks[0].std));
  EXPECT_TRUE(std::isnan(outcome.peaks[0].amplitude));
  EXPECT_EQ(outcome.peaks[0].quality, GOOD);
}

// 60, 50, 50 is concave up: 60 (5/6)^(9/8) = 48.87 counts in the minimum, between the two noises.
TEST(FittingGaussVia3Points, EchoesLowerThanTheNoiseAreRemoved) {
  Samples const samples{60, 50, 50, 50, 50, 5, 5};
  EXPECT_EQ(fit(samples, 48).peaks.size(), 1U);
  EXPECT_TRUE(fit(samples, 49).peaks.empty());
}

// A waveform that only falls: 60, 50, 50 is concave up, with the minimum half-way between the 50s.
TEST(FittingGaussVia3Points, ConcaveUpTripleGivesAnEchoWithoutWidth) {
  Outcome const outcome = fit({60, 50, 50, 50, 50, 5, 5}, 20);
  ASSERT_EQ(outcome.peaks.size(), 1U);
  EXPECT_NEAR(outcome.peaks[0].idx, 1.5, Tolerance::fitSamples);
  EXPECT_TRUE(std::isnan(outcome.peaks[0].std));
}

TEST(FittingGaussVia3Points, RangeThatStartsAtZeroReadsNoSampleBeforeIt) {
  Samples const samples{5, 100, 200, 100, 5};
  EXPECT_EQ(positions(fit(samples, 20)), (Positions{2.0}));
  Testing::withGuardedCopies(samples, [&](unsigned short const* guarded) {
    WavePtr const wave = waveOf(samples, 20);
    EXPECT_EQ(wave->globalStart, 0U);
    EXPECT_TRUE(Fitting().apply(guarded, wave));
    EXPECT_EQ(wave->size(), 1U);
  });
}

TEST(FittingGaussVia3Points, ShortWaveformsAreNotReadOutside) {
  for (std::size_t length = 0; length <= 6; ++length) {
    for (int const noise : {-1, 0, 20}) {
      for (unsigned short const level : Samples{0, 20, 50, 4000}) {
        Samples const samples(length, level);
        Testing::withGuardedCopies(samples, [&](unsigned short const* guarded) {
          WavePtr const wave = waveOf(samples, noise);
          bool const ran = Fitting().apply(guarded, wave);
          EXPECT_TRUE(length > 4 || !ran || wave->size() == 0) << length;
        });
      }
    }
  }
}

TEST(FittingGaussVia3Points, EchoesOfShortWaveformsAreInTheirRange) {
  unsigned short const levels[] = {0, 20, 300};
  for (int code = 0; code < 3 * 3 * 3 * 3 * 3 * 3; ++code) {
    Samples samples;
    for (int rest = code, i = 0; i < 6; ++i, rest /= 3) {
      samples.push_back(levels[rest % 3]);
    }
    Testing::withGuardedCopies(samples, [&](unsigned short const* guarded) {
      WavePtr const wave = waveOf(samples, 20);
      Fitting().apply(guarded, wave);
      for (Peak const& peak : wave->peaks) {
        EXPECT_FALSE(peak.idx < wave->globalStart || peak.idx > wave->globalEnd);
        EXPECT_LT(peak.quality, EXCEEDS_RANGE);
      }
    });
  }
}

TEST(FittingGaussVia3Points, FitterIsReusable) {
  Fitting fitting;
  for (int round = 0; round < 3; ++round) {
    Samples const samples = waveformOf(20, 5, {{9, {100, 200, 100}}});
    WavePtr const wave = waveOf(samples, 20);
    EXPECT_TRUE(fitting.apply(samples.data(), wave));
    EXPECT_EQ(wave->peaks.front().idx, 10.0);
  }
}

TEST(FittingGaussVia3PointsDeathTest, WithoutWaveformAborts) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  Samples const samples(10, 50);
  EXPECT_DEATH(Fitting().apply(samples.data(), WavePtr()), "empty strong pointer");
}

}  // namespace
}  // namespace FullWaveform
