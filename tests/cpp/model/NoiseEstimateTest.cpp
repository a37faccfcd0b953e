#include <fullwaveform/model/NoiseEstimate.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include <fullwaveform/model/WavePoints.h>
#include <gtest/gtest.h>

#include "NoiseWaveforms.h"
#include "support/TestWaveforms.h"

namespace FullWaveform {
namespace {

using Testing::Samples;

std::uint32_t estimateOf(Samples const& samples) {
  return estimateNoise(std::span<unsigned short const>(samples));
}

Samples operator+(Samples left, Samples const& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

TEST(NoiseEstimate, AnEmptyWaveformGives180) {
  EXPECT_EQ(estimateOf({}), 180U);
}

TEST(NoiseEstimate, FewerThanTwoSamplesAbove10Give180) {
  EXPECT_EQ(estimateOf({0}), 180U);
  EXPECT_EQ(estimateOf({4000}), 180U);
  EXPECT_EQ(estimateOf(Samples(50, 10)), 180U);
  EXPECT_EQ(estimateOf({10, 10, 11, 10, 10}), 180U);
}

TEST(NoiseEstimate, TheDefaultIsNotDoubled) {
  EXPECT_EQ(estimateOf({3, 3000, 3}), 180U);
}

TEST(NoiseEstimate, TwoTo19SamplesAbove10GiveTheIndefiniteValue) {
  EXPECT_EQ(estimateOf({11, 11}), 0x80000000U);
  for (std::size_t above = 2; above <= 19; ++above) {
    EXPECT_EQ(estimateOf(Samples(above, 50)), 0x80000000U) << above;
    EXPECT_EQ(estimateOf(Samples(above, 50) + Samples(30, 10)), 0x80000000U) << above;
  }
}

TEST(NoiseEstimate, TheIndefiniteValueIsStoredAsNoiseZero) {
  Samples const samples(19, 50);
  WavePoints<unsigned short> const wave(samples.data(), 0, 0.0, 0.0, 19, -1, ScannerDevice());
  EXPECT_EQ(wave.noise, 0);
}

TEST(NoiseEstimate, TwentyEqualSamplesGiveTheirValue) {
  EXPECT_EQ(estimateOf(Samples(20, 50)), 50U);
}

// k = 2 of 20: a line through two values leaves no residual. Rank 1 of 20 is the second smallest value.
TEST(NoiseEstimate, IsTheSampleOfRankFivePercent) {
  Samples samples(20, 50);
  samples[7] = 20;
  samples[12] = 30;
  EXPECT_EQ(estimateOf(samples), 30U);
}

TEST(NoiseEstimate, RankIsTruncated) {
  Samples samples(39, 50);  // 0.05 x 39 = 1.95; the first three values are on a line
  samples[7] = 20;
  samples[12] = 30;
  samples[20] = 40;
  EXPECT_EQ(estimateOf(samples), 30U);
}

// Values 50, 53, 50 over 0, 1, 2: slope 0, intercept 51, residuals -1, 2, -1; five times 3, plus 50.
TEST(NoiseEstimate, AddsFiveTimesTheSpread) {
  Samples const bumpy{50, 53, 50};
  EXPECT_EQ(estimateOf(bumpy + Samples(27, 50)), 65U);
}

// The last sample is below the first: the spread is measured at the end, not at the beginning.
TEST(NoiseEstimate, ADescendingWaveformIsMeasuredAtItsEnd) {
  EXPECT_EQ(estimateOf(Samples{51, 59, 51} + Samples(24, 50) + Samples{50, 53, 50}), 65U);
}

TEST(NoiseEstimate, EqualEndsAreMeasuredAtTheBeginning) {
  EXPECT_EQ(estimateOf(Samples{50, 53, 50} + Samples(24, 50) + Samples{50, 59, 50}), 65U);
}

TEST(NoiseEstimate, TheEndSamplesAreComparedEvenBelow10) {
  // First 5, last 3: descending, so the last three collected values (50, 53, 50) are taken.
  EXPECT_EQ(estimateOf(Samples{5, 50, 59, 50} + Samples(24, 50) + Samples{50, 53, 50, 3}), 65U);
  EXPECT_EQ(estimateOf(Samples{3, 50, 53, 50} + Samples(24, 50) + Samples{50, 59, 50, 5}), 65U);
}

// 200 values: the line is fitted to ten, not twenty, so the eleventh has no effect.
TEST(NoiseEstimate, TheLineIsFittedToAtMostTenValues) {
  Samples samples(200, 50);
  samples[10] = 80;
  EXPECT_EQ(estimateOf(samples), 50U);
}

TEST(NoiseEstimate, OnlySamplesAbove10AreUsed) {
  EXPECT_EQ(estimateOf(Samples(40, 10) + Samples(20, 11)), 11U);
}

TEST(NoiseEstimate, AMaximumAbove1800Doubles) {
  Samples samples(30, 50);
  samples[15] = 1800;
  EXPECT_EQ(estimateOf(samples), 50U);
  samples[15] = 1801;
  EXPECT_EQ(estimateOf(samples), 100U);
}

TEST(NoiseEstimate, TheMaximumIncludesFirstAndLastSample) {
  // The first three are 2000, 50, 50: slope -975, intercept 1675; residuals 325, -650, 325.
  EXPECT_EQ(estimateOf(Samples{2000} + Samples(28, 50) + Samples{2000}), 2U * (5U * 975U + 50U));
}

class NoiseWaveforms : public testing::TestWithParam<std::size_t> {};

TEST_P(NoiseWaveforms, AgreeWithPython) {
  Testing::NoiseWaveform const known = Testing::noiseWaveforms.at(GetParam());
  EXPECT_EQ(estimateNoise(known.samples), known.level) << known.kind;
  WavePoints<unsigned short> const wave(known.samples.data(), 0, 0.0, 0.0,
                                        static_cast<int>(known.samples.size()), -1, ScannerDevice());
  EXPECT_EQ(wave.noise, known.level & 0xFFFFU) << known.kind;
}

INSTANTIATE_TEST_SUITE_P(NoiseEstimate, NoiseWaveforms,
                         testing::Range<std::size_t>(0, Testing::noiseWaveforms.size()));

TEST(NoiseEstimate, DoesNotReadOutsideTheWaveform) {
  for (std::size_t const length : {1U, 2U, 19U, 20U, 35U}) {
    Testing::withGuardedCopies(Samples(length, 50), [length](unsigned short const* samples) {
      EXPECT_NE(estimateNoise(std::span(samples, length)), 1U);
    });
  }
}

/// The estimate implemented plainly: collect, sort and fit a line.
std::uint32_t plainEstimate(std::span<unsigned short const> samples) {
  std::vector<double> collected;
  for (unsigned short const sample : samples) {
    if (sample > 10) {
      collected.push_back(sample);
    }
  }
  if (collected.size() < 2) {
    return 180;
  }
  std::size_t const k = std::clamp<std::size_t>(collected.size() / 10, 1, 10);
  std::vector<double> line(collected.begin(), collected.begin() + static_cast<std::ptrdiff_t>(k));
  if (samples.back() < samples.front()) {
    line.assign(collected.end() - static_cast<std::ptrdiff_t>(k), collected.end());
  }
  double sums[4] = {};  // of x, y, x x and x y
  for (std::size_t i = 0; i < k; ++i) {
    auto const x = static_cast<double>(i);
    sums[0] += x;
    sums[1] += line[i];
    sums[2] += x * x;
    sums[3] += x * line[i];
  }
  auto const n = static_cast<double>(k);
  double const slope = (n * sums[3] - sums[0] * sums[1]) / (n * sums[2] - sums[0] * sums[0]);
  double const intercept = (sums[1] - slope * sums[0]) / n;
  std::vector<double> residuals;
  for (std::size_t i = 0; i < k; ++i) {
    residuals.push_back(line[i] - intercept - slope * static_cast<double>(i));
  }
  auto const [min, max] = std::minmax_element(residuals.begin(), residuals.end());
  std::sort(collected.begin(), collected.end());
  double const percentile = collected[static_cast<std::size_t>(0.05 * static_cast<double>(collected.size()))];
  double level = (*max - *min) * 5.0 + percentile;
  if (collected.back() > 1800.0) {
    level *= 2.0;
  }
  return std::isnan(level) ? 0x80000000U : static_cast<std::uint32_t>(level);
}

TEST(NoiseEstimate, AgreesWithSortingForRandomWaveformsOfAnyAlignment) {
  std::mt19937 rng(9);
  auto const between = [&rng](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(rng);
  };
  for (int number = 0; number < 20000; ++number) {
    std::size_t const length = static_cast<std::size_t>(between(0, number % 100 == 0 ? 3000 : 200));
    std::size_t const shift = static_cast<std::size_t>(number % 32);
    // Few close values, a wide baseline, or any 16-bit values, some of them not above 10.
    int const min = between(0, 2) == 0 ? between(0, 12) : between(11, 4000);
    int const max = std::min(65535, min + (1 << between(0, 16)));
    Samples memory(shift + length);
    for (unsigned short& sample : memory) {
      sample = static_cast<unsigned short>(between(min, max));
    }
    std::span<unsigned short const> const waveform = std::span(memory).subspan(shift);
    EXPECT_EQ(estimateNoise(waveform), plainEstimate(waveform)) << number;
  }
}

// 41 values: k = 4, rank 2.
TEST(NoiseEstimate, RankIsThatOfTheSortedSamples) {
  Samples samples(41, 60000);
  std::fill(samples.begin(), samples.begin() + 4, 65535);
  std::fill(samples.end() - 4, samples.end(), 700);
  samples[20] = 300;
  samples[11] = 301;
  // The last values are on a line; ranks 0 to 2 are 300, 301, 700; doubled because of the maximum.
  EXPECT_EQ(estimateOf(samples), 1400U);
}

TEST(NoiseEstimate, MoreThan65535SamplesAreCounted) {
  Samples samples(70000, 9);
  std::fill(samples.begin(), samples.begin() + 69000, 40);
  samples.front() = 9;
  // All 68999 values above 10 are 40.
  EXPECT_EQ(estimateOf(samples), 40U);
}

}  // namespace
}  // namespace FullWaveform
