#include <fullwaveform/deconvolution/FftConvolution.h>

#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Threads.h"

namespace FullWaveform {
namespace {

using Values = std::vector<double>;

Values const skewed{0.1, 0.9, 1.0, 0.6, 0.35, 0.2, 0.1, 0.05};

/// Irregular values around 0.
Values irregular(std::size_t count) {
  Values values(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i] = static_cast<double>(i * i * 7919 % 1009) / 100.0 - 4.0;
  }
  return values;
}

/// Convolution as a sum, by its definition; value i is that of index offset + i in the full convolution.
Values directSum(Values const& x, Values const& kernel, std::ptrdiff_t offset) {
  Values sums(x.size());
  for (std::size_t i = 0; i < x.size(); ++i) {
    for (std::size_t k = 0; k < x.size(); ++k) {
      std::ptrdiff_t const index = offset + static_cast<std::ptrdiff_t>(i) - static_cast<std::ptrdiff_t>(k);
      if (index >= 0 && index < static_cast<std::ptrdiff_t>(kernel.size())) {
        sums[i] += x[k] * kernel[static_cast<std::size_t>(index)];
      }
    }
  }
  return sums;
}

void expectNear(Values const& values, Values const& expected) {
  ASSERT_EQ(values.size(), expected.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(values[i], expected[i], 1e-12) << "value " << i;
  }
}

std::uint32_t fullLength(std::size_t x, std::size_t kernel) {
  return static_cast<std::uint32_t>(x + kernel - 1);
}

TEST(KernelCentre, IsTheValueBeforeTheMiddle) {
  EXPECT_EQ(kernelCentre(56), 27);
  EXPECT_EQ(kernelCentre(12), 5);
  EXPECT_EQ(kernelCentre(7), 2);
  EXPECT_EQ(kernelCentre(2), 0);
  EXPECT_EQ(kernelCentre(1), -1);
}

TEST(Convolve, EqualsTheDirectSumForASkewedKernel) {
  for (std::size_t const length : {2UL, 5UL, 8UL, 21UL, 64UL, 127UL}) {
    Values const x = irregular(length);
    for (std::uint32_t const padding : {0U, 1U, 13U}) {
      ConvolutionWorkspace workspace(skewed, fullLength(length, skewed.size()) + padding);
      Values out(length);
      convolve(workspace, workspace.psfSpectrum(), kernelCentre(skewed.size()), x, out);
      expectNear(out, directSum(x, skewed, 3));
    }
  }
}

TEST(Convolve, UsesTheMirroredKernelForTheCorrection) {
  Values const x = irregular(40);
  Values const mirrored(skewed.rbegin(), skewed.rend());
  ConvolutionWorkspace workspace(skewed, fullLength(40, skewed.size()));
  Values out(40);
  convolve(workspace, workspace.psfReversedSpectrum(), kernelCentre(skewed.size()), x, out);
  expectNear(out, directSum(x, mirrored, 3));
}

TEST(Convolve, OfAnImpulseIsTheKernelCentredOnIt) {
  ConvolutionWorkspace workspace(skewed, fullLength(12, skewed.size()));
  Values x(12, 0.0);
  x[5] = 2.0;
  Values out(12);
  convolve(workspace, workspace.psfSpectrum(), kernelCentre(skewed.size()), x, out);
  expectNear(out, {0, 0, 0.2, 1.8, 2.0, 1.2, 0.7, 0.4, 0.2, 0.1, 0, 0});
}

TEST(Convolve, TheMinimumTransformLengthSuffices) {
  for (std::size_t const kernelLength : {1UL, 2UL, 3UL, 7UL, 8UL}) {
    Values const kernel(skewed.begin(), skewed.begin() + static_cast<std::ptrdiff_t>(kernelLength));
    for (std::size_t const length : {2UL, 5UL, 21UL}) {
      Values const x = irregular(length);
      std::ptrdiff_t const offset = kernelCentre(kernelLength);
      auto const minLength = static_cast<std::uint32_t>(minTransformLength(length, kernelLength));
      ConvolutionWorkspace workspace(kernel, minLength);
      Values out(length);
      convolve(workspace, workspace.psfSpectrum(), offset, x, out);
      expectNear(out, directSum(x, kernel, offset));
    }
  }
  // 28 more for a system wave of 56 values; 55 more would avoid any overlap.
  EXPECT_EQ(minTransformLength(120, 56), 148U);
  EXPECT_EQ(minTransformLength(120, 7), 124U);
}

TEST(Convolve, AKernelOfOneValueShiftsByOneValue) {
  // Its centre is -1, before the first value, where the convolution is 0.
  ConvolutionWorkspace workspace(Values{3.0}, 4);
  Values out(4, 9.0);
  convolve(workspace, workspace.psfSpectrum(), kernelCentre(1), Values{1.0, 2.0, 4.0, 8.0}, out);
  expectNear(out, {0.0, 3.0, 6.0, 12.0});
}

TEST(Convolve, ValuesBeyondTheTransformAreZero) {
  ConvolutionWorkspace workspace(Values{1.0, 0.0}, 5);
  Values const x{1, 2, 3, 4, 5, 6, 7, 8};
  Values out(8, 9.0);
  convolve(workspace, workspace.psfSpectrum(), 0, x, out);
  expectNear(out, {1, 2, 3, 4, 5, 0, 0, 0});
  convolve(workspace, workspace.psfSpectrum(), 3, x, out);
  expectNear(out, {4, 5, 0, 0, 0, 0, 0, 0});
  convolve(workspace, workspace.psfSpectrum(), 7, x, out);
  expectNear(out, Values(8, 0.0));
}

TEST(Convolve, ValuesAfterTheInputAreZero) {
  ConvolutionWorkspace workspace(Values{1.0, 0.0}, 5);
  Values out(6, 9.0);
  convolve(workspace, workspace.psfSpectrum(), 0, Values{1, 2, 3}, out);
  expectNear(out, {1, 2, 3, 0, 0, 0});
}

TEST(Convolve, AShorterResultHoldsTheFirstValues) {
  ConvolutionWorkspace workspace(Values{1.0, 0.0}, 5);
  Values out(2, 9.0);
  convolve(workspace, workspace.psfSpectrum(), 1, Values{1, 2, 3}, out);
  expectNear(out, {2, 3});
}

TEST(Convolve, KeepsNoValuesOfThePreviousCall) {
  ConvolutionWorkspace workspace(Values{1.0, 0.0}, 6);
  Values out(6);
  convolve(workspace, workspace.psfSpectrum(), 0, Values(6, 100.0), out);
  Values second(5);
  convolve(workspace, workspace.psfSpectrum(), 0, Values{0, 0, 0, 0, 0}, second);
  expectNear(second, Values(5, 0.0));
}

TEST(Convolve, TheResultMayOverwriteTheInput) {
  ConvolutionWorkspace workspace(skewed, 32);
  Values values = irregular(25);
  Values const expected = directSum(values, skewed, kernelCentre(skewed.size()));
  convolve(workspace, workspace.psfSpectrum(), kernelCentre(skewed.size()), values, values);
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NEAR(values[i], expected[i], 1e-12) << i;
  }
}

TEST(Convolve, WithoutWorkspaceOrKernelGivesZeros) {
  ConvolutionWorkspace empty;
  Values out(3, 9.0);
  convolve(empty, nullptr, 0, Values{1, 2, 3}, out);
  expectNear(out, {0, 0, 0});
  ConvolutionWorkspace workspace(Values{1.0}, 3);
  out.assign(3, 9.0);
  convolve(workspace, nullptr, 0, Values{1, 2, 3}, out);
  expectNear(out, {0, 0, 0});
}

TEST(ConvolutionWorkspace, SpectrumAtZeroAndHalfTheSamplingFrequency) {
  ConvolutionWorkspace const workspace(skewed, 20);
  EXPECT_EQ(workspace.fftLength(), 20U);
  EXPECT_EQ(workspace.spectrumBins(), 11U);
  EXPECT_NEAR(workspace.psfSpectrum()[0][0], 3.3, 1e-14);
  EXPECT_NEAR(workspace.psfSpectrum()[0][1], 0.0, 1e-14);
  // At half the sampling frequency: values of even index minus those of odd index, 1.55 - 1.75. Mirroring a
  // kernel of eight values exchanges the two.
  EXPECT_NEAR(workspace.psfSpectrum()[10][0], -0.2, 1e-14);
  EXPECT_NEAR(workspace.psfReversedSpectrum()[10][0], 0.2, 1e-14);
}

TEST(ConvolutionWorkspace, NumberOfBinsIsHalfTheLengthPlusOne) {
  EXPECT_EQ(ConvolutionWorkspace(skewed, 21).spectrumBins(), 11U);
  EXPECT_EQ(ConvolutionWorkspace(skewed, 1).spectrumBins(), 1U);
}

TEST(ConvolutionWorkspace, AKernelLongerThanTheTransformIsTruncated) {
  ConvolutionWorkspace const workspace(skewed, 3);
  EXPECT_NEAR(workspace.psfSpectrum()[0][0], 2.0, 1e-14);
  EXPECT_NEAR(workspace.psfReversedSpectrum()[0][0], 0.35, 1e-14);
}

TEST(ConvolutionWorkspace, InvalidLengthsThrow) {
  EXPECT_THROW(ConvolutionWorkspace(skewed, 0), std::length_error);
  EXPECT_THROW(ConvolutionWorkspace(skewed, 2147483648U), std::length_error);
}

TEST(ConvolutionWorkspace, MovingTransfersTheBuffers) {
  ConvolutionWorkspace first(Values{1.0, 0.0}, 4);
  ConvolutionWorkspace second(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): tests the moved-from state
  EXPECT_EQ(first.fftLength(), 0U);
  ASSERT_TRUE(second);
  ConvolutionWorkspace third(skewed, 30);
  third = std::move(second);
  EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(third.fftLength(), 4U);
  Values out(3);
  convolve(third, third.psfSpectrum(), 0, Values{1, 2, 3}, out);
  expectNear(out, {1, 2, 3});
}

TEST(ConvolutionWorkspace, ThreadsPlanAndReleaseConcurrently) {
  Values const x = irregular(50);
  Values const expected = directSum(x, skewed, 3);
  Testing::onThreads(4, [&](int number) {
    for (std::uint32_t padding = 0; padding < 20; ++padding) {
      ConvolutionWorkspace workspace(
          skewed, fullLength(50, skewed.size()) + padding + 20 * static_cast<std::uint32_t>(number));
      Values out(50);
      convolve(workspace, workspace.psfSpectrum(), kernelCentre(skewed.size()), x, out);
      expectNear(out, expected);
    }
  });
}

}  // namespace
}  // namespace FullWaveform
