// What must hold for every block, whatever is in it: tried on random scans in every mode.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "properties/RandomScans.h"
#include "support/ConsoleCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using namespace Testing;

using Texts = std::map<double, std::string>;

constexpr int shotsOfScan = 40;

class BlockProperties : public testing::TestWithParam<std::uint32_t> {
 protected:
  [[nodiscard]] Driver driver() const {
    return {static_cast<FWFModus>(GetParam()), scannerWithSystemWave(), directory.path(), "scan.las",
            maxWaveformLength};
  }
  [[nodiscard]] ShotMap run(std::vector<Row> const& rows, int noise = scanNoise) const {
    Driver fresh = driver();
    return blockOf(rows).run(fresh, noise);
  }

  TemporaryDirectory directory;
  ConsoleCapture console;
};

/// Rows that each stand alone, at the edge of a page that cannot be read; handed out by an accessor.
struct LonelyRows {
  std::vector<std::unique_ptr<GuardedSamples>> records;
  std::vector<int> readings;
  Block block;

  LonelyRows(std::vector<Row> const& rows, GuardedSamples::Guard guard)
      : readings(rows.size()), block(blockOf(rows)) {
    for (Row const& row : rows) {
      records.push_back(std::make_unique<GuardedSamples>(row.samples, guard));
    }
    block.waveforms = Driver::Waveforms(new Array({rows.size(), maxWaveformLength}, [this](std::size_t row) {
      ++readings[row];
      return records[row]->data();
    }));
  }
};

TEST_P(BlockProperties, NothingOutsideARecordIsReadAndEachIsFetchedOnce) {
  std::vector<Row> const rows = randomScan(11, shotsOfScan);
  Texts const expected = bytesOf(run(rows));
  for (auto const guard : {GuardedSamples::Guard::Before, GuardedSamples::Guard::After}) {
    LonelyRows lonely(rows, guard);
    Driver fresh = driver();
    EXPECT_EQ(bytesOf(lonely.block.run(fresh, scanNoise)), expected);
    EXPECT_EQ(lonely.readings, std::vector<int>(rows.size(), 1));
  }
}

TEST_P(BlockProperties, EchoesAreSortedGoodAndInsideTheSignal) {
  std::size_t echoes = 0;
  Driver fresh = driver();
  std::vector<Row> const rows = randomScan(12, 2 * shotsOfScan);
  for (auto const& [time, shot] : blockOf(rows).run(fresh, scanNoise)) {
    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
      WavePoints<unsigned short> const& wave = *shot.waves[i];
      EXPECT_LE(wave.peaks.size(), rows[shot.rows[i]].samples.size());
      double former = wave.globalStart;
      for (Peak const& echo : wave.peaks) {
        EXPECT_EQ(echo.quality, GOOD);
        EXPECT_GE(echo.idx, former);
        EXPECT_LE(echo.idx, wave.globalEnd);
        former = echo.idx;
        ++echoes;
      }
    }
  }
  EXPECT_GT(echoes, 50U);
  ASSERT_EQ(fresh.lastBlock().amplitudesInCounts.size(), echoes);
  for (float const amplitude : fresh.lastBlock().amplitudesInCounts) {
    EXPECT_GE(amplitude, static_cast<float>(scanNoise));
    EXPECT_LE(amplitude, 4096.0F);
  }
}

TEST_P(BlockProperties, ShotsAscendAndHoldTheirRowsInOrder) {
  std::vector<Row> const rows = randomScan(13, shotsOfScan);
  double former = -std::numeric_limits<double>::infinity();
  for (auto const& [time, shot] : run(rows)) {
    EXPECT_LT(former, time);
    former = time;
    ASSERT_FALSE(shot.rows.empty());
    EXPECT_TRUE(std::is_sorted(shot.rows.begin(), shot.rows.end()));
    for (std::size_t i = 0; i < shot.rows.size(); ++i) {
      EXPECT_EQ(rows[shot.rows[i]].shotTime, time);
      EXPECT_EQ(shot.waves[i]->shotTime, time);
    }
  }
}

TEST_P(BlockProperties, NothingDependsOnTheNeighboursInTheBlock) {
  std::vector<Row> const rows = randomScan(14, shotsOfScan);
  Texts const together = bytesOf(run(rows));
  std::map<double, std::vector<Row>> shots;
  for (Row const& row : rows) {
    shots[row.shotTime].push_back(row);
  }
  Texts alone;
  for (auto const& [time, own] : shots) {
    alone.merge(bytesOf(run(own)));
  }
  EXPECT_EQ(together, alone);
}

TEST_P(BlockProperties, TheSameBlockTwiceGivesTheSameBytes) {
  Block const block = blockOf(randomScan(15, shotsOfScan));
  for (int const noise : {scanNoise, -1}) {
    Driver used = driver();
    Texts const first = bytesOf(block.run(used, noise));
    EXPECT_EQ(bytesOf(block.run(used, noise)), first);
    Driver fresh = driver();
    EXPECT_EQ(bytesOf(block.run(fresh, noise)), first);
  }
}

TEST_P(BlockProperties, ABlockCutBetweenShotsGivesTheSameShots) {
  std::vector<Row> const rows = randomScan(16, shotsOfScan);
  Texts const whole = bytesOf(run(rows));
  for (std::size_t cut = 1; cut < rows.size(); cut += 7) {
    while (cut < rows.size() && rows[cut].shotTime == rows[cut - 1].shotTime) {
      ++cut;
    }
    auto const middle = rows.begin() + static_cast<std::ptrdiff_t>(cut);
    Driver both = driver();
    Texts parts = bytesOf(blockOf({rows.begin(), middle}).run(both, scanNoise));
    parts.merge(bytesOf(blockOf({middle, rows.end()}).run(both, scanNoise)));
    EXPECT_EQ(parts, whole) << "cut before row " << cut;
  }
}

TEST_P(BlockProperties, ShotsWhoseRowsLieApartAreTheSameShots) {
  std::vector<Row> rows = randomScan(17, shotsOfScan);
  Texts const together = bytesOf(run(rows));
  std::stable_sort(rows.begin(), rows.end(),
                   [](Row const& a, Row const& b) { return a.shotTime < b.shotTime; });
  EXPECT_EQ(bytesOf(run(rows)), together) << "in the order of time";
  // The first rows of all shots, then the second ones, then the third ones.
  std::map<double, std::vector<Row>> shots;
  for (Row const& row : rows) {
    shots[row.shotTime].push_back(row);
  }
  std::vector<Row> apart;
  for (std::size_t place = 0; apart.size() < rows.size(); ++place) {
    for (auto const& [time, own] : shots) {
      if (place < own.size()) {
        apart.push_back(own[place]);
      }
    }
  }
  EXPECT_EQ(bytesOf(run(apart)), together) << "apart";
}

TEST_P(BlockProperties, RowsMayBeginAtAnyAddress) {
  constexpr std::size_t places = 32;  // samples to a cache line
  std::vector<Row> const rows = randomScan(18, shotsOfScan);
  Texts const expected = bytesOf(run(rows));
  for (std::size_t shift = 0; shift < places; ++shift) {
    std::vector<Samples> memories;
    for (std::size_t row = 0; row < rows.size(); ++row) {
      Samples& memory = memories.emplace_back((shift + row) % places, 65535);
      memory.insert(memory.end(), rows[row].samples.begin(), rows[row].samples.end());
    }
    Block block = blockOf(rows);
    block.waveforms = Driver::Waveforms(new Array({rows.size(), maxWaveformLength}, [&](std::size_t row) {
      return memories[row].data() + (shift + row) % places;
    }));
    Driver fresh = driver();
    EXPECT_EQ(bytesOf(block.run(fresh, scanNoise)), expected) << "moved by " << shift;
  }
}

TEST_P(BlockProperties, EveryThreadFindsWhatOneFinds) {
  Block const block = blockOf(randomScan(19, shotsOfScan));
  Driver alone = driver();
  Texts const expected = bytesOf(block.run(alone, scanNoise));
  std::atomic<int> different{0};
  onThreads(4, [&](int) {
    Driver own = driver();
    for (int round = 0; round < 3; ++round) {
      different += bytesOf(block.run(own, scanNoise)) == expected ? 0 : 1;
    }
  });
  EXPECT_EQ(different, 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, BlockProperties, testing::Values(0U, 1U, 2U, 3U));

}  // namespace
}  // namespace FullWaveform
