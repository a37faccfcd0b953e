#include <fullwaveform/deconvolution/RichardsonLucy.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <limits>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/host/TarnClass.h>
#include <richardson_lucy/RichardsonLucyCases.h>

#include "support/ConsoleCapture.h"
#include "support/Records.h"
#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using Deconvolver = RichardsonLucy<unsigned short, ZeroCrossing>;
using Testing::RichardsonLucyCase;
using Testing::Samples;
using Testing::skewedScanner;
using Values = std::vector<double>;

static_assert(!std::is_copy_constructible_v<Deconvolver>);
static_assert(std::is_nothrow_move_constructible_v<Deconvolver>);

constexpr unsigned short floorLevel = 20;  // counts

WavePtr waveOf(Samples const& samples, ScannerDevice const& scanner, int noise = floorLevel) {
  return WavePtr(new WavePoints<unsigned short>(samples.data(), 0, 0.0, 0.0, static_cast<int>(samples.size()),
                                                noise, scanner));
}

/// A wave whose range is set by hand.
WavePtr waveOf(RichardsonLucyCase const& known) {
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

/// The pulse of the skewed scanner at t samples after its start, largest value 1 (at 2 atan(2) = 2.21430 of
/// its phase, that is 4.42859 samples).
double pulse(double t) {
  double const largest = std::exp(-0.25 * 4.42859) * (1.0 - std::cos(0.5 * 4.42859));
  return t < 0.0 ? 0.0 : std::exp(-0.25 * t) * (1.0 - std::cos(0.5 * t)) / largest;
}

Samples recordWithEchoes(std::size_t length, std::vector<std::pair<double, double>> const& startsAndCounts) {
  Samples samples(length);
  for (std::size_t i = 0; i < length; ++i) {
    double value = 10.0;
    for (auto const& [start, counts] : startsAndCounts) {
      value += counts * pulse(static_cast<double>(i) - start);
    }
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  return samples;
}

/// Where an echo lands whose pulse starts at `start`: the kernel's middle, place 27 of 56 steps, behind it,
/// less half the up-sampling factor. 5.4 - 2.5 samples.
double positionOf(double start) {
  return start + 2.9;
}

/// Echoes are found on a grid of a fifth of a sample; they may lie one place beside their own, not two.
constexpr double gridSamples = 0.3;

TEST(RichardsonLucy, SizesFollowFromTheCount) {
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

TEST(RichardsonLucy, WithoutUpSamplingTheSizesAreThoseOfTheSamples) {
  Deconvolver const deconvolver(skewedScanner(1), 25);
  EXPECT_EQ(deconvolver.upsampled_length, 25U);
  EXPECT_EQ(deconvolver.sys_length, 12U);
  EXPECT_EQ(deconvolver.fft_length, 36U);
  EXPECT_EQ(deconvolver.spectrum_bins, 19U);
}

TEST(RichardsonLucy, WithoutExponentialSumsItIsUnusable) {
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

TEST(RichardsonLucy, WithoutSamplingIntervalOrSystemSamplesItIsUnusable) {
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

TEST(RichardsonLucy, UnusableItLeavesTheWaveAlone) {
  Testing::ConsoleCapture const console;
  Deconvolver deconvolver(ScannerDevice(), 60);
  Samples const samples = recordWithEchoes(60, {{20.0, 500.0}});
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

TEST(RichardsonLucy, ACountThatNoTransformFitsIsALengthError) {
  // Five times this many values wrap to 0 in 32 bits.
  EXPECT_THROW((RichardsonLucy<unsigned short, ZeroCrossing>(skewedScanner(), 858993460U)),
               std::length_error);
}

TEST(RichardsonLucy, ConvolutionIsCentredAndStaysInsideItsTransform) {
  Deconvolver deconvolver(skewedScanner(1), 25);
  // System wave of 12 samples, its middle at 5: value i of the result is value 5 + i - k of the wave.
  for (std::size_t const length : {25UL, 31UL, 36UL, 40UL}) {
    Values x(length, 0.0);
    x[2] = 1.0;
    Values out(length, 9.0);
    deconvolver.convolution(x, deconvolver.psf_spectrum(), out);
    double const largest = pulse(4.0);  // of the wave at whole samples
    for (std::size_t i = 0; i < length; ++i) {
      double const place = 3.0 + static_cast<double>(i);
      double const expected = place < 12.0 ? pulse(place) / largest : 0.0;
      EXPECT_NEAR(out[i], expected, 1e-12) << length << " values, value " << i;
    }
  }
}

TEST(RichardsonLucy, ConvolutionIntoAShorterVectorStaysInsideIt) {
  Deconvolver deconvolver(skewedScanner(1), 25);
  Values out;
  deconvolver.convolution(Values(25, 1.0), deconvolver.psf_spectrum(), out);
  EXPECT_TRUE(out.empty());
  deconvolver.convolution({}, deconvolver.psf_spectrum(), out);
  EXPECT_TRUE(out.empty());
}

TEST(RichardsonLucy, DeconvolvesLikeThePublishedIteration) {
  for (RichardsonLucyCase const& known : Testing::richardsonLucyCases()) {
    SCOPED_TRACE(known.kind);
    Deconvolver deconvolver(skewedScanner(known.upSampling), 60);
    WavePtr const wave = waveOf(known);
    EXPECT_EQ(deconvolver.apply(known.samples.data(), wave), 1);
    ASSERT_EQ(wave->peaks.size(), known.peaks.size());
    std::size_t i = 0;
    for (Peak const& peak : wave->peaks) {
      EXPECT_NEAR(peak.idx, known.peaks[i].idx, 1e-6);
      // A value that is scaled to a whole count may be truncated to the one below it.
      EXPECT_NEAR(peak.amplitude, known.peaks[i].amplitude, 1.0);
      EXPECT_EQ(peak.type, RICHARDSON_LUCY);
      EXPECT_EQ(peak.quality, GOOD);
      ++i;
    }
  }
}

TEST(RichardsonLucy, FindsKnownEchoesWhereTheirPulsesStart) {
  Samples const samples = recordWithEchoes(70, {{15.0, 800.0}, {26.0, 350.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 70);
  WavePtr const wave = waveOf(samples, scanner);
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->peaks.size(), 2U);
  EXPECT_NEAR(wave->peaks.front().idx, positionOf(15.0), gridSamples);
  EXPECT_NEAR(std::next(wave->peaks.begin())->idx, positionOf(26.0), gridSamples);
  // The largest value of the deconvolved signal is that of the record.
  EXPECT_NEAR(wave->peaks.front().amplitude, wave->maxAmplitude, 1.0);
}

TEST(RichardsonLucy, APlannedLengthBeyondTheSignalChangesNothing) {
  Samples const samples = recordWithEchoes(70, {{15.0, 800.0}, {24.0, 350.0}});
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

TEST(RichardsonLucy, AWaveLongerThanPlannedForIsSafe) {
  Samples const samples = recordWithEchoes(200, {{15.0, 800.0}, {150.0, 350.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 25);
  EXPECT_EQ(deconvolver.apply(samples.data(), waveOf(samples, scanner)), 1);
}

TEST(RichardsonLucy, WorkingMemoryKeepsNothingOfTheWaveBefore) {
  Samples const longer = recordWithEchoes(90, {{15.0, 2000.0}, {50.0, 900.0}});
  Samples const shorter = recordWithEchoes(60, {{20.0, 300.0}});
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

TEST(RichardsonLucy, ReadsNothingOutsideTheRecord) {
  // The range ends at the last but one sample, the latest that a record can give.
  Samples const samples = recordWithEchoes(40, {{1.0, 300.0}, {30.0, 800.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 60);
  Testing::inGuardedPlaces(samples, [&](unsigned short const* record) {
    WavePtr const wave = waveOf(samples, scanner);
    ASSERT_EQ(wave->globalEnd, 38U);
    EXPECT_EQ(deconvolver.apply(record, wave), 1);
    EXPECT_GE(wave->size(), 2U);
  });
}

TEST(RichardsonLucy, EveryPeakOfTheListBecomesOneOfThisMethod) {
  Samples const samples = recordWithEchoes(60, {{20.0, 500.0}});
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

TEST(RichardsonLucy, WithoutUpSamplingPositionsAreShiftedByTheStart) {
  Samples const samples = recordWithEchoes(60, {{20.0, 500.0}});
  ScannerDevice const scanner = skewedScanner(1);
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->push_back(rawPeak(7.25));
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->size(), 2U);
  EXPECT_EQ(wave->peaks.front().idx, 7.25 + wave->globalStart);
  // The kernel's middle is place 5 of 12.
  EXPECT_EQ(std::next(wave->peaks.begin())->idx, 25.0);
}

TEST(RichardsonLucy, TheLastValueOfTheSignalMayBeAPeak) {
  // The range ends in the rise of the pulse: its echo belongs behind it, and the deconvolved signal rises to
  // its last value, that of sample 23.
  Samples const samples = recordWithEchoes(60, {{20.0, 500.0}});
  ScannerDevice const scanner = skewedScanner(1);
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->globalStart = 15;
  wave->globalEnd = 24;
  deconvolver.apply(samples.data(), wave);
  ASSERT_FALSE(wave->peaks.empty());
  EXPECT_EQ(wave->peaks.back().idx, 23.0);
}

TEST(RichardsonLucy, AStartAtZeroMapsBelowZero) {
  Samples const samples = recordWithEchoes(60, {{0.5, 500.0}});
  ScannerDevice const scanner = skewedScanner();
  Deconvolver deconvolver(scanner, 60);
  WavePtr const wave = waveOf(samples, scanner);
  wave->push_back(rawPeak(0.0));
  deconvolver.apply(samples.data(), wave);
  EXPECT_EQ(wave->peaks.front().idx, wave->globalStart - 2.5);
}

TEST(RichardsonLucy, MarksAfterPulsesOfStrongReturns) {
  ScannerDevice scanner = skewedScanner();
  scanner.afterpulse_offset = 5;
  scanner.afterpulse_width = 2;
  Samples const samples = recordWithEchoes(80, {{15.0, 1500.0}, {40.0, 200.0}});
  Deconvolver deconvolver(scanner, 80);
  WavePtr const wave = waveOf(samples, scanner);
  deconvolver.apply(samples.data(), wave);
  ASSERT_GE(wave->size(), 2U);
  EXPECT_EQ(wave->peaks.front().quality, GOOD);
  EXPECT_EQ(wave->peaks.back().quality, AFTERPULS);
  EXPECT_EQ(wave->peaks.back().classification, Quorvane::TarnClass::afterpulse);
}

TEST(RichardsonLucy, NoSignalGivesNoPeaks) {
  Samples const samples = recordWithEchoes(30, {{10.0, 300.0}});
  Deconvolver deconvolver(skewedScanner(), 30);
  EXPECT_EQ(deconvolver.apply(samples.data(), WavePtr()), 1);
  EXPECT_EQ(deconvolver.apply(nullptr, waveOf(samples, skewedScanner())), 1);
  struct Range {
    std::uint32_t start, end;
  };
  // Empty, turned round (as in records of one or two samples), and beyond the record.
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

TEST(RichardsonLucy, OneValueIsNoSignal) {
  Samples const samples = recordWithEchoes(30, {{10.0, 300.0}});
  Deconvolver deconvolver(skewedScanner(1), 30);
  WavePtr const wave = waveOf(samples, skewedScanner(1));
  wave->globalStart = 12;
  wave->globalEnd = 13;
  EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
  EXPECT_TRUE(wave->peaks.empty());
  wave->globalEnd = 14;  // two values are
  EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
  EXPECT_FALSE(wave->peaks.empty());
}

TEST(RichardsonLucy, ARangeWithoutAnythingAboveTheNoiseGivesNoPeaks) {
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

TEST(RichardsonLucy, RecordsOfOneAndTwoSamplesAreLeftAlone) {
  Deconvolver deconvolver(skewedScanner(), 30);
  for (std::size_t const length : {1UL, 2UL}) {
    Samples const samples(length, 500);
    WavePtr const wave = waveOf(samples, skewedScanner());
    EXPECT_EQ(deconvolver.apply(samples.data(), wave), 1);
    EXPECT_TRUE(wave->peaks.empty());
  }
}

TEST(RichardsonLucy, ItMovesAndWorksOn) {
  ScannerDevice const scanner = skewedScanner();
  Deconvolver first(scanner, 60);
  Deconvolver second(std::move(first));
  Deconvolver third(scanner, 10);
  third = std::move(second);
  Samples const samples = recordWithEchoes(60, {{20.0, 500.0}});
  WavePtr const wave = waveOf(samples, scanner);
  third.apply(samples.data(), wave);
  ASSERT_FALSE(wave->peaks.empty());
  EXPECT_NEAR(wave->peaks.front().idx, positionOf(20.0), gridSamples);
}

TEST(Observe, InterpolatesAndScales) {
  Values observed(10);
  Samples const samples{20, 70, 45};
  EXPECT_EQ(observe(samples, 5, 20, observed), 70.0);
  Values const expected{0.0, 0.2, 0.4, 0.6, 0.8, 1.0, 0.9, 0.8, 0.7, 0.6};
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_NEAR(observed[i], expected[i], 1e-15) << i;
  }
}

TEST(Observe, LeavesOutTheLastSample) {
  Values observed(5);
  EXPECT_NEAR(observe(Samples{20, 120}, 5, 20, observed), 100.0, 1e-12);
  EXPECT_NEAR(observed[4], 1.0, 1e-15);
  EXPECT_NEAR(observed[1], 0.25, 1e-15);
}

TEST(Observe, CutsWhatLiesBelowTheNoise) {
  Values observed(4);
  EXPECT_EQ(observe(Samples{30, 10, 50}, 2, 25, observed), 30.0);
  // 30, 20, 10, 30 less 25.
  EXPECT_EQ(observed, (Values{1.0, 0.0, 0.0, 1.0}));
}

TEST(Observe, WithoutUpSamplingTheMaximumIsThatAboveTheNoise) {
  Values observed(3);
  EXPECT_EQ(observe(Samples{10, 70, 45, 500}, 1, 20, observed), 50.0);
  EXPECT_EQ(observed, (Values{0.0, 1.0, 0.5}));
}

TEST(Observe, NothingAboveTheNoiseStaysZero) {
  Values observed(4);
  EXPECT_EQ(observe(Samples{10, 18, 10}, 2, 20, observed), 18.0);
  EXPECT_EQ(observed, Values(4, 0.0));
}

TEST(ScaleToCounts, LastValueDoesNotCountForTheLargest) {
  Values estimate{0.5, 2.0, 1.0, 4.0};
  scaleToCounts(120.0, 20.0, estimate);
  EXPECT_EQ(estimate, (Values{45.0, 120.0, 70.0, 220.0}));
}

TEST(Deconvolve, TakesAsManyIterationsAsThePublishedOne) {
  for (RichardsonLucyCase const& known : Testing::richardsonLucyCases()) {
    SCOPED_TRACE(known.kind);
    std::size_t const length = known.estimate.size();
    auto const samples =
        std::span(known.samples).subspan(known.globalStart, known.globalEnd - known.globalStart + 1);
    Values observed(length);
    double const maximum = observe(samples, known.upSampling, known.noise, observed);
    // The system wave from the pulse itself, scaled to its largest value on the grid.
    Values wave(11 * known.upSampling + 1);
    for (std::size_t i = 0; i < wave.size(); ++i) {
      wave[i] = pulse(static_cast<double>(i) / known.upSampling);
    }
    double const largest = *std::max_element(wave.begin(), wave.end());
    std::transform(wave.begin(), wave.end(), wave.begin(), [&](double value) { return value / largest; });
    ConvolutionWorkspace workspace(wave, static_cast<std::uint32_t>(wave.size() + length - 1));
    DeconvolutionMemory memory;
    Values estimate = observed;
    EXPECT_EQ(deconvolve(observed, {workspace, wave.size()}, memory, estimate), known.iterations);
    scaleToCounts(maximum, known.noise, estimate);
    for (std::size_t i = 0; i < length; ++i) {
      EXPECT_NEAR(estimate[i], known.estimate[i], 1e-6) << "value " << i;
    }
  }
}

TEST(Deconvolve, ZeroConvolutionGivesZeroRatio) {
  // Nothing comes through a kernel of zeros: ratios and corrections are 0, and so is the change of their sum.
  ConvolutionWorkspace workspace(Values{0.0, 0.0}, 5);
  DeconvolutionMemory memory;
  Values const observed(4, 1.0);
  Values estimate = observed;
  EXPECT_EQ(deconvolve(observed, {workspace, 2}, memory, estimate), 1);
  EXPECT_EQ(estimate, Values(4, 0.0));
  EXPECT_EQ(memory.ratio, Values(4, 0.0));
}

TEST(Deconvolve, EndsAtTheFirstIterationThatChangesNothing) {
  // One value through the kernel {0.5, 0.5}: blurred 0.5, ratio 2, correction 1. The first sum, 1, differs
  // from 0; the second does not differ from the first.
  ConvolutionWorkspace workspace(Values{0.5, 0.5}, 2);
  DeconvolutionMemory memory;
  Values const observed{1.0};
  Values estimate = observed;
  EXPECT_EQ(deconvolve(observed, {workspace, 2}, memory, estimate), 2);
  EXPECT_EQ(estimate, Values{1.0});
}

TEST(Deconvolve, GoesOnWhileTheSumChangesByAFiftieth) {
  // One value y through the kernel {1, w}: the first correction is w, which makes the estimate w y; every
  // later correction is 1. The sums are w, 1, 1, after a 0.
  auto const iterations = [](double w) {
    ConvolutionWorkspace workspace(Values{1.0, w}, 2);
    DeconvolutionMemory memory;
    Values estimate{1.0};
    return deconvolve(Values{1.0}, {workspace, 2}, memory, estimate);
  };
  EXPECT_EQ(iterations(0.0199), 1);
  EXPECT_EQ(iterations(0.0201), 3);
  EXPECT_EQ(iterations(0.9799), 3);
  EXPECT_EQ(iterations(0.9801), 2);
  EXPECT_EQ(iterations(1.0199), 2);
  EXPECT_EQ(iterations(1.0201), 3);
}

TEST(Deconvolve, NotANumberEndsAtOnce) {
  ConvolutionWorkspace workspace(Values{1.0, 0.0}, 5);
  DeconvolutionMemory memory;
  Values const observed(4, std::numeric_limits<double>::quiet_NaN());
  Values estimate = observed;
  EXPECT_EQ(deconvolve(observed, {workspace, 2}, memory, estimate), 1);
}

}  // namespace
}  // namespace FullWaveform
