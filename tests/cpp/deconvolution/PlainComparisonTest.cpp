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
#include "deconvolution/PulseRecords.h"
#include "support/SkewedScanner.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Ladder = RL_Planes<unsigned short, ZeroCrossing>;
using Echoes = std::vector<PlainRichardsonLucy::Echo>;

constexpr std::size_t longest = 160;     // samples
constexpr std::size_t longRecord = 400;  // samples
constexpr double lastPlace = 0x1p-51;    // of a convolution's largest value: two orders of the same sums
constexpr double samePosition = 1e-9;    // samples
constexpr double truncatedCounts = 1.0;  // what is scaled to a whole count may be truncated to the one below

/// One to six echoes of random height anywhere in a record of random length, and noise.
Samples randomRecord(std::minstd_rand& chance, std::size_t most = longest) {
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  auto const length = static_cast<std::size_t>(20.0 + uniform(chance) * static_cast<double>(most - 20));
  std::vector<std::pair<double, double>> echoes(1 + chance() % 6);
  for (auto& [start, counts] : echoes) {
    start = uniform(chance) * static_cast<double>(length) - 5.0;
    counts = 20.0 * std::pow(150.0, uniform(chance));
  }
  Samples record = recordWithEchoes(length, echoes);
  for (unsigned short& sample : record) {
    sample = static_cast<unsigned short>(sample + chance() % 8);
  }
  return record;
}

Echoes echoesOf(WavePoints<unsigned short> const& wave) {
  Echoes echoes;
  for (Peak const& peak : wave.peaks) {
    echoes.push_back({peak.idx, peak.amplitude});
  }
  return echoes;
}

/// Whether two lists differ by no more than `position` samples and `amplitude` counts.
bool agree(Echoes const& a, Echoes const& b, double position, double amplitude) {
  bool same = a.size() == b.size();
  for (std::size_t i = 0; same && i < a.size(); ++i) {
    same =
        std::abs(a[i].idx - b[i].idx) <= position && std::abs(a[i].amplitude - b[i].amplitude) <= amplitude;
  }
  return same;
}

/// Plain deconvolvers by the number of the plane they stand beside.
class PlainLadder {
 public:
  PlainLadder(ScannerDevice const& scanner, std::size_t most) {
    for (std::size_t count = 25; count <= most + 25; count += 25) {
      planes.emplace_back(scanner, count);
    }
  }

  PlainRichardsonLucy& operator[](WavePoints<unsigned short> const& wave) {
    return planes.at(wave.lengthCropped / 25);
  }

 private:
  std::vector<PlainRichardsonLucy> planes;
};

/// Whether a change of the last place changes what the plain deconvolution finds: then either is right.
bool decidedByRounding(PlainRichardsonLucy& plain, Samples const& record,
                       WavePoints<unsigned short> const& wave, Echoes const& expected) {
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    if (!agree(plain.echoes(record.data(), wave, lastPlace, seed).echoes, expected, samePosition,
               truncatedCounts)) {
      return true;
    }
  }
  return false;
}

void expectPlainEchoes(std::uint32_t upSampling, int records, std::size_t most = longest) {
  ScannerDevice const scanner = skewedScanner(upSampling);
  Ladder ladder(scanner, static_cast<unsigned int>(most));
  PlainLadder plainLadder(scanner, most);
  std::minstd_rand chance(7);
  std::size_t echoes = 0;
  int flipped = 0;
  for (int number = 0; number < records; ++number) {
    Samples const record = randomRecord(chance, most);
    WavePtr const wave = waveOf(record, scanner);
    if (wave->globalEnd <= wave->globalStart) {
      continue;
    }
    PlainRichardsonLucy& plain = plainLadder[*wave];
    Echoes const expected = plain.echoes(record.data(), *wave).echoes;
    ASSERT_EQ(ladder.apply(record.data(), wave), 1);
    echoes += expected.size();
    if (!agree(echoesOf(*wave), expected, samePosition, truncatedCounts)) {
      ++flipped;
      EXPECT_TRUE(decidedByRounding(plain, record, *wave, expected)) << "record " << number;
    }
  }
  EXPECT_GT(echoes, static_cast<std::size_t>(records));
  EXPECT_LE(flipped, records / 100);
  ::testing::Test::RecordProperty("decidedByRounding", flipped);
}

TEST(PlainComparison, ManyRecordsGiveTheSameEchoes) {
  expectPlainEchoes(5, 4000);
}

TEST(PlainComparison, ManyRecordsGiveTheSameEchoesWithoutUpSampling) {
  expectPlainEchoes(1, 2000);
}

TEST(PlainComparison, LongRecordsGiveTheSameEchoes) {
  expectPlainEchoes(5, 400, longRecord);
}

TEST(PlainComparison, RecordsMayBeginAtAnyAddress) {
  ScannerDevice const scanner = skewedScanner();
  Ladder ladder(scanner, longest);
  std::minstd_rand chance(13);
  for (int number = 0; number < 50; ++number) {
    Samples const record = randomRecord(chance);
    WavePtr const expected = waveOf(record, scanner);
    ladder.apply(record.data(), expected);
    for (std::size_t shift = 0; shift < 32; ++shift) {
      Samples moved(shift + record.size());
      std::memcpy(moved.data() + shift, record.data(), record.size() * sizeof(unsigned short));
      WavePtr const wave = waveOf(record, scanner);
      ladder.apply(moved.data() + shift, wave);
      EXPECT_TRUE(agree(echoesOf(*wave), echoesOf(*expected), 0.0, 0.0)) << "record " << number;
    }
  }
}

TEST(PlainComparison, ThreadsFindWhatOneThreadFinds) {
  ScannerDevice const scanner = skewedScanner();
  std::minstd_rand chance(17);
  std::vector<Samples> records(200);
  std::vector<Echoes> expected;
  Ladder ladder(scanner, longest);
  for (Samples& record : records) {
    record = randomRecord(chance);
    WavePtr const wave = waveOf(record, scanner);
    ladder.apply(record.data(), wave);
    expected.push_back(echoesOf(*wave));
  }
  onThreads(4, [&](int number) {
    // Each from another record on: what came before a record does not show in its echoes either.
    Ladder own(scanner, longest);
    for (std::size_t i = 0; i < records.size(); ++i) {
      std::size_t const at = (i + 50 * static_cast<std::size_t>(number)) % records.size();
      WavePtr const wave = waveOf(records[at], scanner);
      own.apply(records[at].data(), wave);
      EXPECT_TRUE(agree(echoesOf(*wave), expected[at], 0.0, 0.0)) << "record " << at;
    }
  });
}

}  // namespace
}  // namespace FullWaveform
