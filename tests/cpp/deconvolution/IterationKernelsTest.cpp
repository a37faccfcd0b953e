#include <fullwaveform/deconvolution/IterationKernels.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <span>
#include <vector>

#include <fullwaveform/fitting/ZeroCrossing.h>
#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Values = std::vector<double>;

std::vector<InstructionSet> availableSets() {
  std::vector<InstructionSet> sets;
  for (InstructionSet const set : {InstructionSet::Baseline, InstructionSet::Avx2}) {
    if (isAvailable(set)) {
      sets.push_back(set);
    }
  }
  return sets;
}

/// Values of many magnitudes, some of them 0.
Values mixed(std::size_t count, unsigned int seed) {
  std::minstd_rand rng(seed);
  std::uniform_real_distribution<double> uniform(-3.0, 3.0);
  Values values(count);
  for (double& value : values) {
    value = rng() % 7 == 0 ? 0.0 : uniform(rng) * std::pow(10.0, uniform(rng));
  }
  return values;
}

TEST(IterationKernels, MaximumAtEveryIndex) {
  for (InstructionSet const set : availableSets()) {
    EXPECT_EQ(IterationKernels::maximum(set, {}), 0.0);
    EXPECT_EQ(IterationKernels::maximum(set, Values(20, 0.0)), 0.0);
    for (std::size_t index = 0; index < 20; ++index) {
      Values values(20, 1.0);
      values[index] = 1.5;
      EXPECT_EQ(IterationKernels::maximum(set, values), 1.5) << index;
    }
  }
}

TEST(IterationKernels, SubtractNoiseClipsAndScales) {
  for (InstructionSet const set : availableSets()) {
    Values values{20, 25, 30, 10, 0, 21, 22, 23, 24};
    IterationKernels::subtractNoise(set, values, 20.0, 10.0);
    EXPECT_EQ(values, (Values{0.0, 0.5, 1.0, 0.0, 0.0, 0.1, 0.2, 0.3, 0.4}));
  }
}

TEST(IterationKernels, MultipliesComplexNumbers) {
  for (InstructionSet const set : availableSets()) {
    double spectrum[][2] = {{1, 2}, {3, -1}, {0, 1}, {2, 0}, {-1, -1}};
    double const kernel[][2] = {{5, 1}, {2, 2}, {0, 1}, {7, 3}, {-1, 1}};
    IterationKernels::multiply(set, spectrum, kernel);
    // (1 + 2i)(5 + i) = 3 + 11i, (3 - i)(2 + 2i) = 8 + 4i, i i = -1, 2 (7 + 3i), (-1 - i)(-1 + i) = 2
    double const expected[][2] = {{3, 11}, {8, 4}, {-1, 0}, {14, 6}, {2, 0}};
    for (std::size_t k = 0; k < 5; ++k) {
      EXPECT_EQ(spectrum[k][0], expected[k][0]) << k;
      EXPECT_EQ(spectrum[k][1], expected[k][1]) << k;
    }
  }
}

TEST(IterationKernels, DivideGivesZeroForADivisorOfZero) {
  for (InstructionSet const set : availableSets()) {
    Values ratios(5, 9.0);
    IterationKernels::divide(set, Values{6.0, 5.0, 0.0, 3.0, 7.0}, Values{4.0, 0.0, 8.0, -2.0, -0.0}.data(),
                             0.5, ratios.data());
    EXPECT_EQ(ratios, (Values{3.0, 0.0, 0.0, -3.0, 0.0}));
  }
}

TEST(IterationKernels, DivideTreatsOnlyExactZerosAsZero) {
  double const smallest = std::numeric_limits<double>::denorm_min();
  for (InstructionSet const set : availableSets()) {
    Values ratios(4, 9.0);
    IterationKernels::divide(set, Values{3.0 * smallest, 1e-300, -1e-20, 2.0 * smallest},
                             Values{smallest, 2e-300, 4e-20, -smallest}.data(), 1.0, ratios.data());
    EXPECT_EQ(ratios, (Values{3.0, 0.5, -0.25, -2.0}));
    // A quarter of the smallest number is rounded to 0.
    IterationKernels::divide(set, Values(4, 1.0), Values(4, smallest).data(), 0.25, ratios.data());
    EXPECT_EQ(ratios, Values(4, 0.0));
  }
}

TEST(IterationKernels, CorrectSumsTheFactors) {
  for (InstructionSet const set : availableSets()) {
    Values estimate{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    Values copy(11, -1.0);
    double const sum = IterationKernels::correct(
        set, estimate, Values{2, 4, 6, 8, 10, 12, 14, 16, 18, 20}.data(), 0.5, copy.data());
    EXPECT_EQ(sum, 55.0);
    EXPECT_EQ(estimate, (Values{1, 4, 9, 16, 25, 36, 49, 64, 81, 100}));
    EXPECT_EQ(copy, (Values{1, 4, 9, 16, 25, 36, 49, 64, 81, 100, -1}));
  }
}

TEST(IterationKernels, ToCountsKeepsTheLow16Bits) {
  double const inf = std::numeric_limits<double>::infinity();
  double const nan = std::numeric_limits<double>::quiet_NaN();
  Values const values{0.0,          1.0,           2.99, -1.5, 65537.0, 2147483647.0,
                      2147483648.0, -2147483648.5, inf,  nan,  3.0};
  for (InstructionSet const set : availableSets()) {
    std::vector<std::uint16_t> counts(values.size(), 9);
    IterationKernels::toCounts(set, values, 1.0, 1.0, 0.0, counts.data());
    EXPECT_EQ(counts, (std::vector<std::uint16_t>{0, 1, 2, 65535, 1, 65535, 0, 0, 0, 0, 3}));
    IterationKernels::toCounts(set, Values{0.5, 1.0, 2.0}, 100.0, 2.0, 20.0, counts.data());
    EXPECT_EQ((std::vector<std::uint16_t>(counts.begin(), counts.begin() + 3)),
              (std::vector<std::uint16_t>{45, 70, 120}));
  }
}

TEST(IterationKernels, EveryInstructionSetGivesTheSameProducts) {
  for (std::size_t count = 0; count < 70; ++count) {
    Values expected;
    for (InstructionSet const set : availableSets()) {
      Values spectrum = mixed(2 * count, 1);
      Values const kernel = mixed(2 * count, 2);
      IterationKernels::multiply(set, {reinterpret_cast<double (*)[2]>(spectrum.data()), count},
                                 reinterpret_cast<double const(*)[2]>(kernel.data()));
      if (set == InstructionSet::Baseline) {
        expected = spectrum;
      }
      ASSERT_EQ(spectrum, expected) << count << " values";
    }
  }
}

TEST(IterationKernels, EveryInstructionSetGivesTheSameBitsForAllLengthsAndAlignments) {
  for (std::size_t count = 0; count < 70; ++count) {
    for (std::size_t shift = 0; shift < 4; ++shift) {
      Values const observed = mixed(shift + count, 1);
      Values const blurred = mixed(shift + count, 2);
      std::span<double const> const part = std::span(observed).subspan(shift);
      Values expectedRatios;
      Values expectedEstimate;
      double expectedSum = 0.0;
      for (InstructionSet const set : availableSets()) {
        Values ratios(shift + count);
        IterationKernels::divide(set, part, blurred.data() + shift, 0.3, ratios.data() + shift);
        Values estimate = observed;
        Values copy(shift + count);
        double const sum = IterationKernels::correct(set, std::span(estimate).subspan(shift),
                                                     blurred.data() + shift, 0.3, copy.data() + shift);
        if (set == InstructionSet::Baseline) {
          expectedRatios = ratios;
          expectedEstimate = estimate;
          expectedSum = sum;
        }
        ASSERT_EQ(ratios, expectedRatios) << count << " values";
        ASSERT_EQ(estimate, expectedEstimate) << count << " values";
        ASSERT_EQ(sum, expectedSum) << count << " values";
      }
    }
  }
}

TEST(IterationKernels, AgreeWithPlainLoopsForAllLengthsAndAlignments) {
  for (std::size_t count = 0; count < 70; ++count) {
    for (std::size_t shift = 0; shift < 4; ++shift) {
      Values signal = mixed(shift + count, 3);
      std::span<double> const part = std::span(signal).subspan(shift);
      Values aboveNoise;
      std::vector<std::uint16_t> expectedCounts;
      double maximum = 0.0;
      for (double const value : part) {
        maximum = std::max(maximum, value);
        aboveNoise.push_back(std::max(value - 0.5, 0.0) / 0.7);
        expectedCounts.push_back(static_cast<std::uint16_t>(toSixteenBits(value * 300.0 / 1.7 + 20.0)));
      }
      for (InstructionSet const set : availableSets()) {
        EXPECT_EQ(IterationKernels::maximum(set, part), maximum) << count << " values";
        std::vector<std::uint16_t> counts(shift + count);
        IterationKernels::toCounts(set, part, 300.0, 1.7, 20.0, counts.data() + shift);
        counts.erase(counts.begin(), counts.begin() + static_cast<std::ptrdiff_t>(shift));
        EXPECT_EQ(counts, expectedCounts) << count << " values";
        Values cut = signal;
        IterationKernels::subtractNoise(set, std::span(cut).subspan(shift), 0.5, 0.7);
        EXPECT_TRUE(std::equal(aboveNoise.begin(), aboveNoise.end(),
                               cut.begin() + static_cast<std::ptrdiff_t>(shift)))
            << count << " values";
      }
    }
  }
}

}  // namespace
}  // namespace FullWaveform
