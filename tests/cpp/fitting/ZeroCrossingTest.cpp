#include <fullwaveform/fitting/ZeroCrossing.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <list>
#include <random>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestWaveforms.h"

namespace FullWaveform {
namespace {

using Testing::Samples;
using Found = std::vector<std::pair<double, double>>;  // index, amplitude

Found foundIn(std::list<Peak> const& peaks) {
  Found found;
  for (Peak const& peak : peaks) {
    found.emplace_back(peak.idx, peak.amplitude);
  }
  return found;
}

/// Settings of a scan; both forms of the finder run it.
struct Scan {
  int first;
  int last;
  unsigned short noise = 0;
  double minimumDifference = 2.0;
};

Found scanSamples(Samples const& samples, Scan const& scan, std::list<Peak> peaks = {}) {
  ZeroCrossing settings;
  settings.minimumDifference = scan.minimumDifference;
  Testing::withGuardedCopies(samples, [&](unsigned short const* guarded) {
    std::list<Peak> copy = peaks;
    EXPECT_TRUE(
        findRawPeaks(std::span(guarded, samples.size()), scan.first, scan.last, scan.noise, copy, settings));
  });
  EXPECT_TRUE(findRawPeaks(std::span<unsigned short const>(samples), scan.first, scan.last, scan.noise, peaks,
                           settings));
  return foundIn(peaks);
}

Found scanValues(std::vector<double> const& values, Scan const& scan, std::list<Peak> peaks = {},
                 ValueConversion const& convert = toSixteenBits) {
  EXPECT_TRUE(findRawPeaks(std::span<double const>(values), scan.first, scan.last, scan.noise, peaks, convert,
                           scan.minimumDifference));
  return foundIn(peaks);
}

/// Peaks that both forms find; they must agree.
Found scan(Samples const& samples, Scan const& settings, std::list<Peak> const& peaks = {}) {
  Found const found = scanSamples(samples, settings, peaks);
  std::vector<double> const values(samples.begin(), samples.end());
  EXPECT_EQ(scanValues(values, settings, peaks), found);
  return found;
}

Peak existingPeak() {
  return {1.0, 99.0, 0.0, FLAW, GOOD, 0.0, 0, 0.0F};
}

TEST(ZeroCrossing, StartsWithoutAccessor) {
  EXPECT_FALSE(ZeroCrossing().sampleAccessor);
}

TEST(ZeroCrossing, RawPeakHasDefaultValues) {
  std::list<Peak> peaks;
  Samples const samples{5, 9, 5};
  findRawPeaks(std::span<unsigned short const>(samples), 1, 1, 5, peaks, ZeroCrossing());
  ASSERT_EQ(peaks.size(), 1U);
  Peak const& peak = peaks.front();
  EXPECT_EQ(peak.amplitude, 9.0F);
  EXPECT_EQ(peak.idx, 1.0);
  EXPECT_EQ(peak.time, 0.0);
  EXPECT_EQ(peak.type, RAW);
  EXPECT_EQ(peak.quality, GOOD);
  EXPECT_EQ(peak.std, 0.0);
  EXPECT_EQ(peak.classification, 0);
  EXPECT_EQ(peak.reflectance, 0.0F);
}

TEST(ZeroCrossing, PlateauGivesItsFirstSample) {
  EXPECT_EQ(scan({5, 9, 9, 9, 5}, {1, 3, 5}), (Found{{1, 9}}));
}

TEST(ZeroCrossing, MaximaAreInIndexOrder) {
  EXPECT_EQ(scan({0, 20, 0, 50, 0, 30, 0}, {1, 5}), (Found{{1, 20}, {3, 50}, {5, 30}}));
}

TEST(ZeroCrossing, RiseToTheEndOfTheRangeIsFoundByTheFallback) {
  EXPECT_EQ(scan({1, 10, 20, 30, 40}, {1, 3, 5}), (Found{{3, 30}}));
  EXPECT_EQ(scan({1, 10, 20, 30, 40}, {1, 3, 29}), (Found{{3, 30}}));
  EXPECT_EQ(scan({1, 10, 20, 30, 40}, {1, 3, 30}), Found{});
}

TEST(ZeroCrossing, FallFromTheStartOfTheRangeIsFoundByTheFallback) {
  EXPECT_EQ(scan({40, 30, 20, 10, 1}, {1, 3}), (Found{{1, 30}}));
}

TEST(ZeroCrossing, FlatMaximumIsFoundByTheFallback) {
  EXPECT_EQ(scan({10, 11, 10}, {1, 1, 5}), (Found{{1, 11}}));
  EXPECT_EQ(scan({10, 11, 10, 50, 10}, {1, 3, 5}), (Found{{3, 50}}));
}

TEST(ZeroCrossing, OneSideAtTheMinimumDifferenceIsEnough) {
  // Each next to a clear maximum, so that the fallback is not used.
  EXPECT_EQ(scan({8, 10, 9, 9, 50, 0}, {1, 4}), (Found{{1, 10}, {4, 50}}));
  EXPECT_EQ(scan({9, 10, 8, 8, 50, 0}, {1, 4}), (Found{{1, 10}, {4, 50}}));
  EXPECT_EQ(scan({9, 10, 9, 9, 50, 0}, {1, 4}), (Found{{4, 50}}));
}

TEST(ZeroCrossing, MinimumDifferenceItselfCounts) {
  EXPECT_EQ(scan({10, 15, 14, 14, 50, 0}, {1, 4, 0, 5.0}), (Found{{1, 15}, {4, 50}}));
  EXPECT_EQ(scan({10, 15, 14, 14, 50, 0}, {1, 4, 0, 5.5}), (Found{{4, 50}}));
}

TEST(ZeroCrossing, SampleMustBeAboveTheNoise) {
  EXPECT_EQ(scan({5, 20, 5, 30, 5}, {1, 3, 19}), (Found{{1, 20}, {3, 30}}));
  EXPECT_EQ(scan({5, 20, 5, 30, 5}, {1, 3, 20}), (Found{{3, 30}}));
}

TEST(ZeroCrossing, NoPeakWithoutSamplesAboveTheNoise) {
  EXPECT_EQ(scan({5, 20, 5, 30, 5}, {1, 3, 30}), Found{});
  EXPECT_EQ(scan({0, 0, 0, 0}, {1, 2, 0}), Found{});
}

TEST(ZeroCrossing, FallbackTakesTheFirstOfEqualMaxima) {
  EXPECT_EQ(scan({10, 11, 10, 11, 10}, {1, 3, 5}), (Found{{1, 11}}));
}

TEST(ZeroCrossing, FallbackSearchesTheRangeOnly) {
  EXPECT_EQ(scan({90, 11, 11, 11, 95}, {1, 3, 5}), (Found{{1, 11}}));
}

TEST(ZeroCrossing, NewPeaksAreAppended) {
  EXPECT_EQ(scan({5, 9, 5}, {1, 1, 5}, {existingPeak()}), (Found{{99, 1}, {1, 9}}));
}

TEST(ZeroCrossing, ExistingPeaksSuppressTheFallback) {
  EXPECT_EQ(scan({10, 11, 10}, {1, 1, 5}, {existingPeak()}), (Found{{99, 1}}));
}

TEST(ZeroCrossing, ReversedRangeAddsNothing) {
  EXPECT_EQ(scan({5, 9, 5}, {2, 1}), Found{});
  EXPECT_EQ(scan({5, 9, 5}, {1, -1}), Found{});
}

TEST(ZeroCrossing, RangeOfOneIndexIsScanned) {
  EXPECT_EQ(scan({5, 9, 5}, {1, 1}), (Found{{1, 9}}));
}

TEST(ZeroCrossing, RangeFromZeroReadsTheFirstSampleAsItsNeighbour) {
  // Equal to its predecessor, so the first sample is never a peak of the scan.
  EXPECT_EQ(scan({50, 9, 20, 5}, {0, 2}), (Found{{2, 20}}));
  EXPECT_EQ(scan({50, 9, 8, 5}, {0, 2}), (Found{{0, 50}}));
}

TEST(ZeroCrossing, RangeToTheLastIndexReadsTheLastSampleAsItsNeighbour) {
  EXPECT_EQ(scan({5, 9, 20}, {1, 2}), (Found{{2, 20}}));
}

TEST(ZeroCrossing, SingleSampleIsItsOwnNeighbour) {
  EXPECT_EQ(scan({50}, {0, 0, 10}), (Found{{0, 50}}));
  EXPECT_EQ(scan({}, {0, 0}), Found{});
  EXPECT_EQ(scan({}, {0, -1}), Found{});
}

TEST(ZeroCrossing, FullScaleSamplesDoNotWrap) {
  EXPECT_EQ(scan({0, 65535, 0}, {1, 1, 65534}), (Found{{1, 65535}}));
  EXPECT_EQ(scan({65535, 0, 65535, 0}, {1, 2}), (Found{{2, 65535}}));
}

TEST(ZeroCrossing, EverySampleIsReadThroughTheAccessor) {
  Samples const samples{5, 100, 5, 30, 5};
  ZeroCrossing settings;
  std::set<double> indices;
  settings.sampleAccessor = [&](unsigned short const& sample, double index) {
    EXPECT_EQ(&sample, &samples[static_cast<std::size_t>(index)]);
    indices.insert(index);
    return static_cast<unsigned short>(index == 1.0 ? 5 : sample + 1);
  };
  std::list<Peak> peaks;
  findRawPeaks(std::span<unsigned short const>(samples), 1, 3, 10, peaks, settings);
  EXPECT_EQ(foundIn(peaks), (Found{{3, 31}}));
  EXPECT_EQ(indices, (std::set<double>{0.0, 1.0, 2.0, 3.0, 4.0}));
}

TEST(ZeroCrossing, AccessorGetsTheNearestSampleAtTheBorders) {
  Samples const samples{5, 30};
  ZeroCrossing settings;
  std::set<double> indices;
  settings.sampleAccessor = [&](unsigned short const& sample, double index) {
    EXPECT_EQ(&sample, &samples[static_cast<std::size_t>(index)]);
    indices.insert(index);
    return sample;
  };
  std::list<Peak> peaks;
  findRawPeaks(std::span<unsigned short const>(samples), 0, 1, 10, peaks, settings);
  EXPECT_EQ(foundIn(peaks), (Found{{1, 30}}));
  EXPECT_EQ(indices, (std::set<double>{0.0, 1.0}));
}

TEST(ZeroCrossing, ValuesAreComparedAfterTheirConversion) {
  // 9.9 and 9.2 both become 9: a plateau. 11.9 becomes 11: too little above 10 for a maximum, but the
  // largest.
  EXPECT_EQ(scanValues({5.0, 9.2, 9.9, 5.0}, {1, 2}), (Found{{1, 9}}));
  EXPECT_EQ(scanValues({10.0, 11.9, 10.0}, {1, 1}), (Found{{1, 11}}));
  EXPECT_EQ(scanValues({10.0, 12.9, 10.9, 30.0, 1.0}, {1, 3}), (Found{{1, 12}, {3, 30}}));
}

TEST(ZeroCrossing, ValuesKeepTheirLowSixteenBits) {
  // 65536 + 7 becomes 7, -1 becomes 65535.
  EXPECT_EQ(scanValues({0.0, 65543.0, 0.0}, {1, 1}), (Found{{1, 7}}));
  EXPECT_EQ(scanValues({0.0, -1.0, 0.0}, {1, 1}), (Found{{1, 65535}}));
}

TEST(ZeroCrossing, ValuesWithoutConversionAreUnchanged) {
  EXPECT_EQ(scanValues({0.0, 70000.5, 0.0}, {1, 1}, {}, {}), (Found{{1, 70000.5}}));
}

TEST(ZeroCrossing, NanAndHugeValuesBecomeZero) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(scanValues({nan, 9.0, 1e300, 8.0, nan}, {1, 3}), (Found{{1, 9}, {3, 8}}));
}

/// The definition of a peak, implemented directly.
Found maximaByDefinition(Samples const& samples, Scan const& scan) {
  int const end = static_cast<int>(samples.size()) - 1;
  auto const at = [&](int i) -> int { return samples[static_cast<std::size_t>(std::clamp(i, 0, end))]; };
  Found found;
  Found largest;
  for (int i = std::max(scan.first, 0); i <= std::min(scan.last, end); ++i) {
    bool const isMaximum = at(i) > at(i - 1) && at(i) >= at(i + 1);
    bool const isProminent =
        at(i) - at(i - 1) >= scan.minimumDifference || at(i) - at(i + 1) >= scan.minimumDifference;
    if (at(i) > scan.noise && isMaximum && isProminent) {
      found.emplace_back(i, at(i));
    }
    if (at(i) > scan.noise && (largest.empty() || at(i) > largest[0].second)) {
      largest = {{i, at(i)}};
    }
  }
  return found.empty() ? largest : found;
}

TEST(ZeroCrossing, RandomWaveformsAgreeWithTheDefinition) {
  std::mt19937 rng(5);
  auto const between = [&rng](int min, int max) { return std::uniform_int_distribution<int>(min, max)(rng); };
  std::size_t maxima = 0;
  for (int number = 0; number < 20000; ++number) {
    // Few different values make plateaus and equal maxima; some are near the largest sample value.
    int const lowest = between(0, 4) == 0 ? 65527 : 0;
    int const highest = number % 3 == 0 ? 300 : 8;
    Samples samples(static_cast<std::size_t>(between(1, 24)));
    for (unsigned short& sample : samples) {
      sample = static_cast<unsigned short>(std::min(lowest + between(0, highest), 65535));
    }
    int const end = static_cast<int>(samples.size());
    Scan const settings{between(-2, end), between(-2, end + 1),
                        static_cast<unsigned short>(lowest + between(0, 4)),
                        static_cast<double>(between(0, 3))};
    Found const found = scan(samples, settings);
    EXPECT_EQ(found, maximaByDefinition(samples, settings)) << number;
    maxima += found.size();
  }
  EXPECT_GT(maxima, 15000U);
}

TEST(ToSixteenBits, TruncatesTowardZeroAndKeepsTheLowBits) {
  EXPECT_EQ(toSixteenBits(0.0), 0.0);
  EXPECT_EQ(toSixteenBits(7.99), 7.0);
  EXPECT_EQ(toSixteenBits(-0.99), 0.0);
  EXPECT_EQ(toSixteenBits(-1.5), 65535.0);
  EXPECT_EQ(toSixteenBits(65535.9), 65535.0);
  EXPECT_EQ(toSixteenBits(65536.0), 0.0);
  EXPECT_EQ(toSixteenBits(2147483647.5), 65535.0);
  EXPECT_EQ(toSixteenBits(-2147483647.0), 1.0);
}

TEST(ToSixteenBits, ValuesBeyondThirtyTwoBitsAndNanBecomeZero) {
  EXPECT_EQ(toSixteenBits(2147483648.0), 0.0);
  EXPECT_EQ(toSixteenBits(2147483649.0), 0.0);
  EXPECT_EQ(toSixteenBits(-2147483649.0), 0.0);
  EXPECT_EQ(toSixteenBits(-4294967297.0), 0.0);
  EXPECT_EQ(toSixteenBits(4294967297.0), 0.0);
  EXPECT_EQ(toSixteenBits(1e300), 0.0);
  EXPECT_EQ(toSixteenBits(-std::numeric_limits<double>::infinity()), 0.0);
  EXPECT_EQ(toSixteenBits(std::numeric_limits<double>::quiet_NaN()), 0.0);
}

}  // namespace
}  // namespace FullWaveform
