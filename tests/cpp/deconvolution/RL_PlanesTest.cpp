#include <fullwaveform/deconvolution/RL_Planes.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/HeapCount.h"
#include "support/SkewedScanner.h"
#include "support/TestWaveforms.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using Ladder = RL_Planes<unsigned short, ZeroCrossing>;
using Testing::Samples;
using Testing::skewedScanner;

static_assert(!std::is_copy_constructible_v<Ladder>);

/// A triangular echo of 500 counts at sample 12, baseline 10 counts.
Samples const samples = Testing::waveformOf(400, 10, {{8, {60, 150, 300, 450, 510, 400, 280, 170, 90, 40}}});

/// A waveform whose range has a given length.
WavePtr waveOfLength(std::uint32_t length) {
  WavePtr wave(new WavePoints<unsigned short>());
  wave->length = static_cast<std::uint32_t>(samples.size());
  wave->noise = 20;
  wave->globalStart = 5;
  wave->globalEnd = 5 + length;
  wave->lengthCropped = length;
  return wave;
}

TEST(RL_Planes, HasAPlanePer25Samples) {
  struct Expected {
    unsigned int maxLength;
    std::size_t planes;
  };
  for (Expected const expected : {Expected{0, 1}, Expected{24, 1}, Expected{25, 2}, Expected{49, 2},
                                  Expected{50, 3}, Expected{200, 9}}) {
    Ladder const ladder(skewedScanner(), expected.maxLength);
    EXPECT_EQ(ladder.planes.size(), expected.planes) << expected.maxLength;
    EXPECT_EQ(ladder.plane_count, expected.planes);
    EXPECT_EQ(ladder.plane_step, 25U);
    EXPECT_EQ(ladder.error, "");
  }
}

TEST(RL_Planes, PlanesArePlannedForMultiplesOf25) {
  Ladder const ladder(skewedScanner(), 74);
  ASSERT_EQ(ladder.planes.size(), 3U);
  // System wave of 56 values, signal of (25 (i + 1) - 1) 5 + 1, one less than their sum.
  EXPECT_EQ(ladder.planes[0].fft_length, 176U);
  EXPECT_EQ(ladder.planes[1].fft_length, 301U);
  EXPECT_EQ(ladder.planes[2].fft_length, 426U);
  EXPECT_TRUE(ladder.planes[2]);
}

TEST(RL_Planes, IndexIsTheLengthDividedByTheStep) {
  Ladder const ladder(skewedScanner(), 49);
  EXPECT_EQ(ladder.getIdx(0), 0U);
  EXPECT_EQ(ladder.getIdx(24), 0U);
  EXPECT_EQ(ladder.getIdx(25), 1U);
  EXPECT_EQ(ladder.getIdx(49), 1U);
  EXPECT_EQ(ladder.getIdx(50), 2U);
  EXPECT_GT(ladder.getIdx(-1), 100000U);
}

TEST(RL_Planes, WithoutExponentialSumsHasNoPlanes) {
  Testing::ConsoleCapture const console;
  for (bool const first : {true, false}) {
    ScannerDevice scanner = skewedScanner();
    (first ? scanner.expsum_a : scanner.expsum_b).reset();
    Ladder ladder(scanner, 200);
    EXPECT_EQ(ladder.error, " RL_Planes: have no expsum_a/b");
    EXPECT_EQ(ladder.plane_count, 0U);
    EXPECT_TRUE(ladder.planes.empty());
    WavePtr const wave = waveOfLength(20);
    EXPECT_EQ(ladder.apply(samples.data(), wave), 0);
    EXPECT_TRUE(wave->peaks.empty());
  }
  EXPECT_TRUE(console.messages().empty());
}

TEST(RL_Planes, WithoutSamplingIntervalEveryPlaneIsUnusable) {
  Testing::ConsoleCapture const console;
  ScannerDevice scanner = skewedScanner();
  scanner.sampling_time = 0.0;
  Ladder ladder(scanner, 49);
  EXPECT_EQ(ladder.error, "");
  ASSERT_EQ(ladder.planes.size(), 2U);
  EXPECT_FALSE(ladder.planes[0]);
  EXPECT_FALSE(ladder.planes[1]);
  WavePtr const wave = waveOfLength(20);
  EXPECT_EQ(ladder.apply(samples.data(), wave), 0);
  EXPECT_TRUE(wave->peaks.empty());
  EXPECT_EQ(console.messages().size(), 4U);
}

TEST(RL_Planes, UsesTheSmallestPlaneThatIsLongEnough) {
  Ladder ladder(skewedScanner(), 49);
  // A plane with an error returns 0.
  ladder.planes[1].error = "unusable";
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(24)), 1);
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(25)), 0);
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(49)), 0);
  ladder.planes[1].error.clear();
  ladder.planes[0].error = "unusable";
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(24)), 0);
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(25)), 1);
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(49)), 1);
}

TEST(RL_Planes, PlaneIsSelectedByTheCroppedLengthNotTheRange) {
  Ladder ladder(skewedScanner(), 49);
  ladder.planes[1].error = "unusable";
  WavePtr const shortRange = waveOfLength(20);
  shortRange->lengthCropped = 30;
  EXPECT_EQ(ladder.apply(samples.data(), shortRange), 0);
  WavePtr const longRange = waveOfLength(30);
  longRange->lengthCropped = 20;
  EXPECT_EQ(ladder.apply(samples.data(), longRange), 1);
  EXPECT_FALSE(longRange->peaks.empty());
}

TEST(RL_Planes, AWaveformTooLongForTheLastPlaneGetsNoEchoes) {
  Ladder ladder(skewedScanner(), 49);
  for (std::uint32_t const length : {50U, 51U, 300U}) {
    WavePtr const wave = waveOfLength(length);
    EXPECT_EQ(ladder.apply(samples.data(), wave), 0);
    EXPECT_TRUE(wave->peaks.empty());
  }
}

TEST(RL_Planes, AnEmptyPointerOrNoSignalReturnsOne) {
  Ladder ladder(skewedScanner(), 49);
  EXPECT_EQ(ladder.apply(samples.data(), WavePtr()), 1);
  EXPECT_EQ(ladder.apply(samples.data(), waveOfLength(0)), 1);
  for (std::size_t const length : {1UL, 2UL}) {
    Samples const tiny(length, 500);
    WavePtr const wave(new WavePoints<unsigned short>(tiny.data(), 0, 0.0, 0.0, static_cast<int>(length), 20,
                                                      skewedScanner()));
    EXPECT_EQ(ladder.apply(tiny.data(), wave), 1);
    EXPECT_TRUE(wave->peaks.empty());
  }
}

TEST(RL_Planes, FindsTheSameEchoesAsASingleDeconvolver) {
  Ladder ladder(skewedScanner(), 200);
  RichardsonLucy<unsigned short, ZeroCrossing> single(skewedScanner(), 225);
  for (std::uint32_t const length : {14U, 24U, 25U, 60U, 199U}) {
    WavePtr const found = waveOfLength(length);
    WavePtr const expected = waveOfLength(length);
    EXPECT_EQ(ladder.apply(samples.data(), found), 1);
    single.apply(samples.data(), expected);
    ASSERT_FALSE(found->peaks.empty());
    ASSERT_EQ(found->size(), expected->size()) << length;
    EXPECT_EQ(found->peaks.front().idx, expected->peaks.front().idx);
    EXPECT_NEAR(found->peaks.front().amplitude, expected->peaks.front().amplitude, 1.0);
  }
}

TEST(RL_Planes, AllocatesMemoryForTheEchoesOnly) {
  Ladder ladder(skewedScanner(), 200);
  std::vector<std::uint32_t> const lengths{14U, 24U, 60U, 199U};
  for (std::uint32_t const length : lengths) {
    ladder.apply(samples.data(), waveOfLength(length));  // grows the working memory
  }
  for (std::uint32_t const length : lengths) {
    WavePtr const wave = waveOfLength(length);
    std::size_t const before = Testing::heapAllocations();
    ladder.apply(samples.data(), wave);
    EXPECT_EQ(Testing::heapAllocations() - before, wave->size()) << length;
  }
}

TEST(RL_Planes, CanBeMoved) {
  Ladder first(skewedScanner(), 49);
  Ladder second(std::move(first));
  EXPECT_EQ(first.apply(samples.data(), waveOfLength(20)),
            0);  // NOLINT(bugprone-use-after-move): tests the moved-from state
  Ladder third(skewedScanner(), 100);
  third = std::move(second);
  EXPECT_EQ(third.planes.size(), 2U);
  WavePtr const wave = waveOfLength(20);
  EXPECT_EQ(third.apply(samples.data(), wave), 1);
  EXPECT_FALSE(wave->peaks.empty());
}

TEST(RL_Planes, ThreadsBuildUseAndDestroyLaddersConcurrently) {
  WavePtr const expected = waveOfLength(30);
  Ladder(skewedScanner(), 49).apply(samples.data(), expected);
  ASSERT_FALSE(expected->peaks.empty());
  Testing::onThreads(4, [&](int number) {
    for (unsigned int round = 0; round < 6; ++round) {
      ScannerDevice const scanner = skewedScanner();
      Ladder ladder(scanner, 49 + 25 * static_cast<unsigned int>(number));
      WavePtr const wave = waveOfLength(30);
      EXPECT_EQ(ladder.apply(samples.data(), wave), 1);
      ASSERT_EQ(wave->size(), expected->size());
      EXPECT_EQ(wave->peaks.front().idx, expected->peaks.front().idx);
    }
  });
}

}  // namespace
}  // namespace FullWaveform
