#include <native/echotable/TableRows.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <native/echotable/Grouping.h>

namespace EchoTable {
namespace {

/// Waveforms of vertical pulses, one sample per second and one coordinate unit.
struct Block {
  explicit Block(std::vector<double> times)
      : shotTimes(std::move(times)),
        ones(shotTimes.size(), 1.0),
        zeros(shotTimes.size(), 0.0),
        anchors(3 * shotTimes.size(), 0.0),
        directions(3 * shotTimes.size(), 0.0),
        scales(shotTimes.size(), 1) {
    for (std::size_t row = 0; row < shotTimes.size(); ++row) {
      directions[3 * row + 2] = 1e-12;
    }
  }

  [[nodiscard]] Waveforms view() const {
    Waveforms waveforms;
    waveforms.shotTimes = shotTimes;
    waveforms.samplingIntervals = ones;
    waveforms.anchors = anchors;
    waveforms.locations = zeros;
    waveforms.directions = directions;
    waveforms.phases = zeros;
    waveforms.scales = scales;
    waveforms.halfWidths = zeros;
    return waveforms;
  }

  std::vector<double> shotTimes;
  std::vector<double> ones;
  std::vector<double> zeros;
  std::vector<double> anchors;
  std::vector<double> directions;
  std::vector<std::int64_t> scales;
};

FoundEcho echoAt(std::int64_t row, double position) {
  FoundEcho echo;
  echo.row = row;
  echo.position = position;
  return echo;
}

using Numbers = std::vector<std::int64_t>;

/// All rows of a table; they refer to the echoes.
struct Table {
  std::list<std::vector<FoundEcho>> echoes;
  std::vector<TableRow> rows;
  Numbers echoCounts;
};

/// The table, made of so many rows at a time.
Table tableOf(Waveforms const& waveforms, DiscreteReturns const& returns,
              std::vector<FoundEcho> const& echoes, Choices const& choices, std::size_t atATime = 1) {
  Numbers rows;
  for (FoundEcho const& echo : echoes) {
    rows.push_back(echo.row);
  }
  ShotTable shots(waveforms, returns, rows, choices);
  Table table;
  while (shots.takeShots(atATime)) {
    std::vector<FoundEcho>& taken = table.echoes.emplace_back();
    for (std::int64_t const index : shots.taken()) {
      taken.push_back(echoes[static_cast<std::size_t>(index)]);
    }
    for (TableRow const& row : shots.rowsOf(taken)) {
      table.rows.push_back(row);
    }
  }
  EXPECT_EQ(table.rows.size(), shots.size());
  table.echoCounts = shots.echoCounts();
  return table;
}

Numbers rowsOf(Table const& table) {
  Numbers rows;
  for (TableRow const& row : table.rows) {
    rows.push_back(row.row);
  }
  return rows;
}

Numbers numbersOf(Table const& table) {
  Numbers numbers;
  for (TableRow const& row : table.rows) {
    numbers.push_back(row.number);
  }
  return numbers;
}

TEST(Grouping, ItemsOfAGroupKeepTheirOrder) {
  Numbers const groups{2, 0, 2, 2, 0};
  Grouping const grouping(groups, 4);
  EXPECT_EQ(Numbers(grouping.of(0).begin(), grouping.of(0).end()), (Numbers{1, 4}));
  EXPECT_TRUE(grouping.of(1).empty());
  EXPECT_EQ(Numbers(grouping.of(2).begin(), grouping.of(2).end()), (Numbers{0, 2, 3}));
  EXPECT_TRUE(grouping.of(3).empty());
}

TEST(EchoTable, ShotsAscendInTimeAndEchoesAlongThePulse) {
  Block block({5.0, 4.0, 5.0});
  // The second waveform of the shot at 5 s begins 3 units further down.
  block.anchors[3 * 2 + 2] = -3.0;
  std::vector<FoundEcho> echoes{echoAt(0, 6.0), echoAt(0, 1.0), echoAt(1, 9.0), echoAt(2, 1.0)};
  Table const table = tableOf(block.view(), {}, echoes, {});
  EXPECT_EQ(rowsOf(table), (Numbers{1, 0, 2, 0}));
  EXPECT_EQ(numbersOf(table), (Numbers{1, 1, 2, 3}));
  EXPECT_EQ(table.echoCounts, (Numbers{2, 1, 1}));
  EXPECT_EQ(table.rows[2].place[2], -4.0);
  EXPECT_EQ(table.rows[2].count, 3);
  EXPECT_EQ(table.rows[2].returnIndex, -1);
}

TEST(EchoTable, EquallyFarEchoesAreOrderedByTime) {
  Block block({1.0, 1.0});
  block.anchors[3 * 1 + 2] = 4.0;  // begins 4 units further up
  std::vector<FoundEcho> echoes{echoAt(1, 7.0), echoAt(0, 3.0), echoAt(1, 2.0)};
  Table const table = tableOf(block.view(), {}, echoes, {});
  EXPECT_EQ(rowsOf(table), (Numbers{1, 0, 1}));
  EXPECT_EQ(table.rows[1].place[2], table.rows[2].place[2]);
}

TEST(EchoTable, EchoesWithoutAPlaceFollowTheOthers) {
  Block block({1.0, 1.0});
  block.anchors[3 * 1 + 2] = std::numeric_limits<double>::quiet_NaN();
  std::vector<FoundEcho> echoes{echoAt(1, 5.0), echoAt(1, 1.0), echoAt(0, 9.0)};
  Table const table = tableOf(block.view(), {}, echoes, {});
  EXPECT_EQ(rowsOf(table), (Numbers{0, 1, 1}));
  EXPECT_EQ(table.rows[1].echo->position, 1.0);
}

TEST(EchoTable, OffsetIsRemovedFromDeconvolvedEchoesOnly) {
  Block const block({1.0});
  std::vector<FoundEcho> echoes{echoAt(0, 3.0), echoAt(0, 6.0)};
  echoes[1].type = 5;
  echoes[1].time = 6.0;
  Choices choices;
  choices.positionOffset = 1.5;
  choices.deconvolvedType = 5;
  Table const table = tableOf(block.view(), {}, echoes, choices);
  EXPECT_EQ(table.rows[0].echo->position, 3.0);
  EXPECT_EQ(table.rows[1].echo->position, 4.5);
  EXPECT_EQ(table.rows[1].echo->time, 4.5);
  EXPECT_EQ(table.rows[1].place[2], -4.5);
}

TEST(EchoTable, RowsOfEmptyWaveformsFollowTheEchoesOfTheirShot) {
  Block const block({7.0, 5.0, 7.0, 6.0});
  std::vector<FoundEcho> echoes{echoAt(2, 1.0)};
  Choices choices;
  choices.keepsEmpty = true;
  Table const table = tableOf(block.view(), {}, echoes, choices);
  EXPECT_EQ(rowsOf(table), (Numbers{1, 3, 2, 0}));
  EXPECT_EQ(numbersOf(table), (Numbers{0, 0, 1, 0}));
  EXPECT_EQ(table.rows[3].count, 1);
  EXPECT_EQ(table.rows[0].count, 0);
}

TEST(EchoTable, ItIsTheSameHoweverManyRowsAreMadeAtATime) {
  Block const block({7.0, 5.0, 7.0, 6.0, 8.0});
  std::vector<FoundEcho> const echoes{echoAt(2, 1.0), echoAt(1, 4.0), echoAt(1, 2.0), echoAt(4, 3.0)};
  Choices choices;
  choices.keepsEmpty = true;
  for (std::size_t const atATime : {1, 2, 3, 100}) {
    Table const table = tableOf(block.view(), {}, echoes, choices, atATime);
    EXPECT_EQ(rowsOf(table), (Numbers{1, 1, 3, 2, 0, 4})) << atATime;
    EXPECT_EQ(numbersOf(table), (Numbers{1, 2, 0, 1, 0, 1})) << atATime;
    EXPECT_EQ(table.rows[1].echo->position, 4.0) << atATime;
  }
}

}  // namespace
}  // namespace EchoTable
