#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/deconvolution/RL_Planes.h>

#include "deconvolution/PlainRichardsonLucy.h"
#include "deconvolution/PulseWaveforms.h"
#include "support/SkewedScanner.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Ladder = RL_Planes<unsigned short, ZeroCrossing>;
using Echoes = std::vector<PlainRichardsonLucy::Echo>;

constexpr std::size_t maxLength = 160;      // samples
constexpr std::size_t maxLongLength = 400;  // samples
constexpr double rounding = 0x1p-51;        // relative to the maximum of a convolution
constexpr double samePosition = 1e-9;       // samples
constexpr double truncatedCounts = 1.0;     // a value scaled to an integer may be truncated to the one below

/// One to six echoes of random amplitude and position in a waveform of random length, with noise.
Samples randomWaveform(std::minstd_rand& rng, std::size_t longest = maxLength) {
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  auto const length = static_cast<std::size_t>(20.0 + uniform(rng) * static_cast<double>(longest - 20));
  std::vector<std::pair<double, double>> echoes(1 + rng() % 6);
  for (auto& [start, counts] : echoes) {
    start = uniform(rng) * static_cast<double>(length) - 5.0;
    counts = 20.0 * std::pow(150.0, uniform(rng));
  }
  Samples waveform = waveformWithEchoes(length, echoes);
  for (unsigned short& sample : waveform) {
    sample = static_cast<unsigned short>(sample + rng() % 8);
  }
  return waveform;
}

Echoes echoesOf(WavePoints<unsigned short> const& wave) {
  Echoes echoes;
  for (Peak const& peak : wave.peaks) {
    echoes.push_back({peak.idx, peak.amplitude});
  }
  return echoes;
}

/// Whether two lists agree within `position` samples and `amplitude` counts.
bool agree(Echoes const& a, Echoes const& b, double position, double amplitude) {
  bool same = a.size() == b.size();
  for (std::size_t i = 0; same && i < a.size(); ++i) {
    same =
        std::abs(a[i].idx - b[i].idx) <= position && std::abs(a[i].amplitude - b[i].amplitude) <= amplitude;
  }
  return same;
}

/// A plain deconvolver for each plane of a ladder.
class PlainLadder {
 public:
  PlainLadder(ScannerDevice const& scanner, std::size_t maxCount) {
    for (std::size_t count = 25; count <= maxCount + 25; count += 25) {
      planes.emplace_back(scanner, count);
    }
  }

  PlainRichardsonLucy& operator[](WavePoints<unsigned short> const& wave) {
    return planes.at(wave.lengthCropped / 25);
  }

 private:
  std::vector<PlainRichardsonLucy> planes;
};

/// Whether rounding errors of the convolutions change the result of the plain deconvolution; if so, both
/// results are correct.
bool dependsOnRounding(PlainRichardsonLucy& plain, Samples const& samples,
                       WavePoints<unsigned short> const& wave, Echoes const& expected) {
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    if (!agree(plain.echoes(samples.data(), wave, rounding, seed).echoes, expected, samePosition,
               truncatedCounts)) {
      return true;
    }
  }
  return false;
}

void expectPlainEchoes(std::uint32_t upSampling, int count, std::size_t longest = maxLength) {
  ScannerDevice const scanner = skewedScanner(upSampling);
  Ladder ladder(scanner, static_cast<unsigned int>(longest));
  PlainLadder plainLadder(scanner, longest);
  std::minstd_rand rng(7);
  std::size_t echoes = 0;
  int roundingCases = 0;
  for (int number = 0; number < count; ++number) {
    Samples const samples = randomWaveform(rng, longest);
    WavePtr const wave = waveOf(samples, scanner);
    if (wave->globalEnd <= wave->globalStart) {
      continue;
    }
    PlainRichardsonLucy& plain = plainLadder[*wave];
    Echoes const expected = plain.echoes(samples.data(), *wave).echoes;
    ASSERT_EQ(ladder.apply(samples.data(), wave), 1);
    echoes += expected.size();
    if (!agree(echoesOf(*wave), expected, samePosition, truncatedCounts)) {
      ++roundingCases;
      EXPECT_TRUE(dependsOnRounding(plain, samples, *wave, expected)) << "waveform " << number;
    }
  }
  EXPECT_GT(echoes, static_cast<std::size_t>(count));
  EXPECT_LE(roundingCases, count / 100);
  ::testing::Test::RecordProperty("roundingCases", roundingCases);
}

TEST(PlainComparison, GivesTheSameEchoes) {
  expectPlainEchoes(5, 4000);
}

TEST(PlainComparison, GivesTheSameEchoesWithoutUpSampling) {
  expectPlainEchoes(1, 2000);
}

TEST(PlainComparison, GivesTheSameEchoesForLongWaveforms) {
  expectPlainEchoes(5, 400, maxLongLength);
}

TEST(PlainComparison, WaveformsMayHaveAnyAlignment) {
  ScannerDevice const scanner = skewedScanner();
  Ladder ladder(scanner, maxLength);
  std::minstd_rand rng(13);
  for (int number = 0; number < 50; ++number) {
    Samples const samples = randomWaveform(rng);
    WavePtr const expected = waveOf(samples, scanner);
    ladder.apply(samples.data(), expected);
    for (std::size_t shift = 0; shift < 32; ++shift) {
      Samples moved(shift + samples.size());
      std::memcpy(moved.data() + shift, samples.data(), samples.size() * sizeof(unsigned short));
      WavePtr const wave = waveOf(samples, scanner);
      ladder.apply(moved.data() + shift, wave);
      EXPECT_TRUE(agree(echoesOf(*wave), echoesOf(*expected), 0.0, 0.0)) << "waveform " << number;
    }
  }
}

TEST(PlainComparison, ThreadsFindTheSameEchoes) {
  ScannerDevice const scanner = skewedScanner();
  std::minstd_rand rng(17);
  std::vector<Samples> waveforms(200);
  std::vector<Echoes> expected;
  Ladder ladder(scanner, maxLength);
  for (Samples& samples : waveforms) {
    samples = randomWaveform(rng);
    WavePtr const wave = waveOf(samples, scanner);
    ladder.apply(samples.data(), wave);
    expected.push_back(echoesOf(*wave));
  }
  onThreads(4, [&](int number) {
    // Each thread starts with another waveform, to detect an effect of the previous waveform.
    Ladder own(scanner, maxLength);
    for (std::size_t i = 0; i < waveforms.size(); ++i) {
      std::size_t const index = (i + 50 * static_cast<std::size_t>(number)) % waveforms.size();
      WavePtr const wave = waveOf(waveforms[index], scanner);
      own.apply(waveforms[index].data(), wave);
      EXPECT_TRUE(agree(echoesOf(*wave), expected[index], 0.0, 0.0)) << "waveform " << index;
    }
  });
}

}  // namespace
}  // namespace FullWaveform
