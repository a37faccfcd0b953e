#include <fullwaveform/deconvolution/RichardsonLucy.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "deconvolution/PulseWaveforms.h"
#include "support/ConsoleCapture.h"
#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Deconvolver = RichardsonLucy<unsigned short, ZeroCrossing>;
using Values = std::vector<double>;

static_assert(!std::is_copy_constructible_v<Deconvolver>);
static_assert(std::is_nothrow_move_constructible_v<Deconvolver>);

TEST(RichardsonLucy, SizesOf25Samples) {
  Deconvolver const deconvolver(skewedScanner(), 25);
  EXPECT_TRUE(deconvolver);
  EXPECT_EQ(deconvolver.error, "");
  EXPECT_EQ(deconvolver.upsampled_length, 121U);
  EXPECT_EQ(deconvolver.sys_length, 56U);
  EXPECT_EQ(deconvolver.fft_length, 176U);
  EXPECT_EQ(deconvolver.spectrum_bins, 89U);
  EXPECT_EQ(deconvolver.device.up_sampling, 5U);
  EXPECT_NE(deconvolver.psf_spectrum(), nullptr);
  EXPECT_NE(deconvolver.psf_reversed_spectrum(), nullptr);
}

TEST(RichardsonLucy, SizesWithoutUpSampling) {
  Deconvolver const deconvolver(skewedScanner(1), 25);
  EXPECT_EQ(deconvolver.upsampled_length, 25U);
  EXPECT_EQ(deconvolver.sys_length, 12U);
  EXPECT_EQ(deconvolver.fft_length, 36U);
  EXPECT_EQ(deconvolver.spectrum_bins, 19U);
}

TEST(RichardsonLucy, IsUnusableWithoutExponentialSums) {
  Testing::ConsoleCapture const console;
  Deconvolver deconvolver(ScannerDevice(), 25);
  EXPECT_FALSE(deconvolver);
  EXPECT_EQ(deconvolver.error, "RichardsonLucy<T,SimplePeakType>::RichardsonLucy:: Have no SysWave");
  EXPECT_EQ(deconvolver.psf_spectrum(), nullptr);
  EXPECT_EQ(console.messages(), (std::vector<std::string>{"dt <= 0", "Could not create system wave!"}));
  Values out(3, 9.0);
  deconvolver.convolution({1, 2, 3}, deconvolver.psf_spectrum(), out);
  EXPECT_EQ(out, Values(3, 0.0));
}

TEST(RichardsonLucy, IsUnusableWithoutSamplingIntervalOrSystemWaveLength) {
  Testing::ConsoleCapture const console;
  ScannerDevice scanner = skewedScanner();
  scanner.sampling_time = 0.0;
  EXPECT_FALSE(Deconvolver(scanner, 25));
  scanner = skewedScanner();
  scanner.size_sys = 0;
  EXPECT_FALSE(Deconvolver(scanner, 25));
  scanner = skewedScanner();
  scanner.up_sampling = 0;
  EXPECT_FALSE(Deconvolver(scanner, 25));
}

TEST(RichardsonLucy, AnUnusableObjectAddsNoEchoes) {
  Testing::ConsoleCapture const console;
  Deconvolver deconvolver(ScannerDevice(), 60);
  Samples const samples = waveformWithEchoes(60, {{20.0, 500.0}});
  WavePtr const wave = waveOf(samples, skewedScanner());
  EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
  EXPECT_TRUE(wave->peaks.empty());
}

TEST(RichardsonLucy, CountZeroHasATransformShorterThanTheSystemWave) {
  Deconvolver deconvolver(skewedScanner(), 0);
  EXPECT_TRUE(deconvolver);
  EXPECT_EQ(deconvolver.fft_length, 51U);
  Values out(80, 9.0);
  deconvolver.convolution(Values(80, 1.0), deconvolver.psf_spectrum(), out);
  EXPECT_EQ(out[79], 0.0);
}

TEST(RichardsonLucy, ACountBeyondTheMaximumTransformThrows) {
  // Five times this many values wrap to 0 in 32 bits.
  EXPECT_THROW((RichardsonLucy<unsigned short, ZeroCrossing>(skewedScanner(), 858993460U)),
               std::length_error);
}

TEST(RichardsonLucy, ConvolutionIsCentredAndStaysInsideItsTransform) {
  Deconvolver deconvolver(skewedScanner(1), 25);
  // System wave of 12 samples with centre 5; the impulse at 2 gives value 3 + i of the system wave at i.
  for (std::size_t const length : {25UL, 31UL, 36UL, 40UL}) {
    Values x(length, 0.0);
    x[2] = 1.0;
    Values out(length, 9.0);
    deconvolver.convolution(x, deconvolver.psf_spectrum(), out);
    double const maximum = pulse(4.0);  // of the system wave at whole samples
    for (std::size_t i = 0; i < length; ++i) {
      double const t = 3.0 + static_cast<double>(i);
      double const expected = t < 12.0 ? pulse(t) / maximum : 0.0;
      EXPECT_NEAR(out[i], expected, 1e-12) << length << " values, value " << i;
    }
  }
}

TEST(RichardsonLucy, ConvolutionWrapsAroundAtTheTransformLength) {
  Deconvolver deconvolver(skewedScanner(1), 25);
  // 12 + 25 - 1 = 36 values. The impulse at 35 gives value k of the system wave at 35 + k of the full
  // convolution; from 1 on these wrap to k - 1, which is out[k - 6].
  ASSERT_EQ(deconvolver.fft_length, 36U);
  Values x(36, 0.0);
  x[35] = 1.0;
  Values out(36, 9.0);
  deconvolver.convolution(x, deconvolver.psf_spectrum(), out);
  double const maximum = pulse(4.0);
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_NEAR(out[i], pulse(6.0 + static_cast<double>(i)) / maximum, 1e-12) << "value " << i;
  }
}

TEST(RichardsonLucy, ConvolutionIntoAnEmptyVectorHasNoEffect) {
  Deconvolver deconvolver(skewedScanner(1), 25);
  Values out;
  deconvolver.convolution(Values(25, 1.0), deconvolver.psf_spectrum(), out);
  EXPECT_TRUE(out.empty());
  deconvolver.convolution({}, deconvolver.psf_spectrum(), out);
  EXPECT_TRUE(out.empty());
}

TEST(RichardsonLucy, CanBeMoved) {
  ScannerDevice const scanner = skewedScanner();
  Deconvolver first(scanner, 60);
  Deconvolver second(std::move(first));
  Deconvolver third(scanner, 10);
  third = std::move(second);
  Samples const samples = waveformWithEchoes(60, {{20.0, 500.0}});
  WavePtr const wave = waveOf(samples, scanner);
  third.apply(samples.data(), wave);
  ASSERT_FALSE(wave->peaks.empty());
  EXPECT_NEAR(wave->peaks.front().idx, positionOf(20.0), gridSamples);
}

}  // namespace
}  // namespace FullWaveform
