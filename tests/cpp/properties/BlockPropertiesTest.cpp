// Invariants of every block, tested with random scans in all modes.
#include <algorithm>
#include <atomic>
#include <cmath>
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

/// Rows in separate memory, each next to an unreadable page; returned by an accessor.
struct GuardedRows {
  std::vector<std::unique_ptr<GuardedSamples>> waveforms;
  std::vector<int> accesses;
  Block block;

  GuardedRows(std::vector<Row> const& rows, GuardedSamples::Guard guard)
      : accesses(rows.size()), block(blockOf(rows)) {
    for (Row const& row : rows) {
      waveforms.push_back(std::make_unique<GuardedSamples>(row.samples, guard));
    }
    block.waveforms = Driver::Waveforms(new Array({rows.size(), maxWaveformLength}, [this](std::size_t row) {
      ++accesses[row];
      return waveforms[row]->data();
    }));
  }
};

TEST_P(BlockProperties, ReadsOnlyTheSamplesAndAccessesEachRowOnce) {
  std::vector<Row> const rows = randomScan(11, shotsOfScan);
  Texts const expected = bytesOf(run(rows));
  for (auto const guard : {GuardedSamples::Guard::Before, GuardedSamples::Guard::After}) {
    GuardedRows guarded(rows, guard);
    Driver fresh = driver();
    EXPECT_EQ(bytesOf(guarded.block.run(fresh, scanNoise)), expected);
    EXPECT_EQ(guarded.accesses, std::vector<int>(rows.size(), 1));
  }
}

TEST_P(BlockProperties, EchoesAreSortedGoodAndInsideTheSignal) {
  std::size_t undefined = 0;
  std::size_t echoes = 0;
  Driver fresh = driver();
  std::vector<Row> const rows = randomScan(12, 2 * shotsOfScan);
  for (auto const& [time, shot] : blockOf(rows).run(fresh, scanNoise)) {
    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
      WavePoints<unsigned short> const& wave = *shot.waves[i];
      EXPECT_LE(wave.peaks.size(), rows[shot.rows[i]].samples.size());
      double previous = wave.globalStart;
      for (Peak const& echo : wave.peaks) {
        EXPECT_EQ(echo.quality, GOOD);
        ++echoes;
        if (std::isnan(echo.idx)) {  // three equal samples
          EXPECT_TRUE(std::isnan(echo.std));
          ++undefined;
          continue;
        }
        EXPECT_GE(echo.idx, previous);
        EXPECT_LE(echo.idx, wave.globalEnd);
        previous = echo.idx;
      }
    }
  }
  EXPECT_GT(echoes - undefined, 50U);
  EXPECT_LT(undefined, echoes / 10);
  ASSERT_EQ(fresh.lastBlock().amplitudesInCounts.size(), echoes);
  for (float const amplitude : fresh.lastBlock().amplitudesInCounts) {
    if (std::isnan(amplitude)) {
      continue;
    }
    EXPECT_GE(amplitude, static_cast<float>(scanNoise));
    EXPECT_LE(amplitude, 4096.0F);
  }
}

TEST_P(BlockProperties, ShotsAndTheirRowsAreSorted) {
  std::vector<Row> const rows = randomScan(13, shotsOfScan);
  double previous = -std::numeric_limits<double>::infinity();
  for (auto const& [time, shot] : run(rows)) {
    EXPECT_LT(previous, time);
    previous = time;
    ASSERT_FALSE(shot.rows.empty());
    EXPECT_TRUE(std::is_sorted(shot.rows.begin(), shot.rows.end()));
    for (std::size_t i = 0; i < shot.rows.size(); ++i) {
      EXPECT_EQ(rows[shot.rows[i]].shotTime, time);
      EXPECT_EQ(shot.waves[i]->shotTime, time);
    }
  }
}

TEST_P(BlockProperties, ShotsDoNotDependOnEachOther) {
  std::vector<Row> const rows = randomScan(14, shotsOfScan);
  Texts const together = bytesOf(run(rows));
  std::map<double, std::vector<Row>> shots;
  for (Row const& row : rows) {
    shots[row.shotTime].push_back(row);
  }
  Texts separate;
  for (auto const& [time, own] : shots) {
    separate.merge(bytesOf(run(own)));
  }
  EXPECT_EQ(together, separate);
}

TEST_P(BlockProperties, RepeatingABlockGivesTheSameBytes) {
  Block const block = blockOf(randomScan(15, shotsOfScan));
  for (int const noise : {scanNoise, -1}) {
    Driver used = driver();
    Texts const first = bytesOf(block.run(used, noise));
    EXPECT_EQ(bytesOf(block.run(used, noise)), first);
    Driver fresh = driver();
    EXPECT_EQ(bytesOf(block.run(fresh, noise)), first);
  }
}

TEST_P(BlockProperties, SplittingABlockBetweenShotsGivesTheSameShots) {
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
    EXPECT_EQ(parts, whole) << "split before row " << cut;
  }
}

TEST_P(BlockProperties, RowsOfAShotNeedNotBeConsecutive) {
  std::vector<Row> rows = randomScan(17, shotsOfScan);
  Texts const together = bytesOf(run(rows));
  std::stable_sort(rows.begin(), rows.end(),
                   [](Row const& a, Row const& b) { return a.shotTime < b.shotTime; });
  EXPECT_EQ(bytesOf(run(rows)), together) << "sorted by time";
  // First rows of all shots, then second rows, then third rows.
  std::map<double, std::vector<Row>> shots;
  for (Row const& row : rows) {
    shots[row.shotTime].push_back(row);
  }
  std::vector<Row> interleaved;
  for (std::size_t index = 0; interleaved.size() < rows.size(); ++index) {
    for (auto const& [time, own] : shots) {
      if (index < own.size()) {
        interleaved.push_back(own[index]);
      }
    }
  }
  EXPECT_EQ(bytesOf(run(interleaved)), together) << "interleaved";
}

TEST_P(BlockProperties, RowsMayHaveAnyAlignment) {
  constexpr std::size_t alignments = 32;  // samples per cache line
  std::vector<Row> const rows = randomScan(18, shotsOfScan);
  Texts const expected = bytesOf(run(rows));
  for (std::size_t shift = 0; shift < alignments; ++shift) {
    std::vector<Samples> buffers;
    for (std::size_t row = 0; row < rows.size(); ++row) {
      Samples& buffer = buffers.emplace_back((shift + row) % alignments, 65535);
      buffer.insert(buffer.end(), rows[row].samples.begin(), rows[row].samples.end());
    }
    Block block = blockOf(rows);
    block.waveforms = Driver::Waveforms(new Array({rows.size(), maxWaveformLength}, [&](std::size_t row) {
      return buffers[row].data() + (shift + row) % alignments;
    }));
    Driver fresh = driver();
    EXPECT_EQ(bytesOf(block.run(fresh, scanNoise)), expected) << "shifted by " << shift;
  }
}

TEST_P(BlockProperties, ThreadsFindTheSameEchoes) {
  Block const block = blockOf(randomScan(19, shotsOfScan));
  Driver single = driver();
  Texts const expected = bytesOf(block.run(single, scanNoise));
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
