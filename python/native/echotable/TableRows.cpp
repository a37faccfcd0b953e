#include <native/echotable/TableRows.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>

#include <native/echotable/Grouping.h>
#include <native/echotable/ShotReturns.h>
#include <native/echotable/Units.h>

namespace EchoTable {
namespace {

constexpr double decibelsPerDecade = 20.0;
FoundEcho const noEcho;

/// Shots in ascending order of time, as the shot of each row; `count` is their number.
struct ShotsOfRows {
  explicit ShotsOfRows(std::span<double const> times) : shots(times.size()) {
    std::vector<std::int64_t> rows(times.size());
    std::iota(rows.begin(), rows.end(), 0);
    auto const timeOf = [times](std::int64_t row) { return times[static_cast<std::size_t>(row)]; };
    if (!std::is_sorted(times.begin(), times.end())) {
      std::stable_sort(rows.begin(), rows.end(),
                       [&](std::int64_t a, std::int64_t b) { return timeOf(a) < timeOf(b); });
    }
    for (std::size_t i = 0; i < rows.size(); ++i) {
      count += i == 0 || timeOf(rows[i]) != timeOf(rows[i - 1]) ? 1 : 0;
      shots[static_cast<std::size_t>(rows[i])] = static_cast<std::int64_t>(count) - 1;
    }
  }

  /// Items by shot, whose rows are given.
  template <class Rows>
  [[nodiscard]] Grouping group(Rows const& rows) const {
    std::vector<std::int64_t> groups;
    groups.reserve(rows.size());
    for (auto const& item : rows) {
      groups.push_back(shots[static_cast<std::size_t>(rowOf(item))]);
    }
    return {groups, count};
  }

  std::vector<std::int64_t> shots;
  std::size_t count = 0;

 private:
  static std::int64_t rowOf(FoundEcho const& echo) { return echo.row; }
  static std::int64_t rowOf(std::int64_t row) { return row; }
};

/// Remove the offset of deconvolved positions, and the factor by which the samples were scaled.
void correct(FoundEcho& echo, Waveforms const& waveforms, Choices const& choices) {
  auto const row = static_cast<std::size_t>(echo.row);
  if (choices.positionOffset != 0.0 && echo.type == choices.deconvolvedType) {
    echo.position -= choices.positionOffset;
    echo.time -= choices.positionOffset * waveforms.samplingIntervals[row];
  }
  std::int64_t const scale = waveforms.scales[row];
  if (scale != 1) {
    auto const factor = static_cast<double>(scale);
    echo.height /= factor;
    echo.sigmaHeight /= factor;
    // Below the amplitude unit the library has 0 dB.
    double const decibels = echo.libraryDecibels - decibelsPerDecade * std::log10(factor);
    echo.libraryDecibels = static_cast<float>(decibels < 0.0 ? 0.0 : decibels);
  }
}

/// An echo of a shot with the keys of its place among the others.
struct PlacedEcho {
  TableRow row;
  double distance;  ///< coordinate units along the pulse
  double time;      ///< s after the first sample of its waveform
};

bool precedes(PlacedEcho const& a, PlacedEcho const& b) {
  if (lessNanLast(a.distance, b.distance) || lessNanLast(b.distance, a.distance)) {
    return lessNanLast(a.distance, b.distance);
  }
  return lessNanLast(a.time, b.time);
}

/// @param start  anchor of the first waveform of the shot
double distanceAlongPulse(Triple const& place, Triple const& start, Triple const& direction) {
  double const length = std::sqrt(dot(direction, direction));
  Triple unit{};
  if (length > 0.0) {
    std::transform(direction.begin(), direction.end(), unit.begin(),
                   [length](double d) { return d / length; });
  }
  return -dot(difference(place, start), unit);  // directions point back to the scanner
}

/// Place an echo, and count its time from the outgoing pulse.
PlacedEcho placed(FoundEcho& echo, Waveforms const& waveforms, std::int64_t firstRow) {
  auto const row = static_cast<std::size_t>(echo.row);
  double const interval = waveforms.samplingIntervals[row];
  double const late = waveforms.phases[row] * interval;
  double const time = echo.position * interval - late;
  echo.time -= late;
  Triple const place = placeOf(waveforms, echo.row, time * picosecondsPerSecond);
  double const distance = distanceAlongPulse(place, tripleOf(waveforms.anchors, firstRow),
                                             tripleOf(waveforms.directions, echo.row));
  return {{echo.row, &echo, place, 0, 0, -1}, distance, time};
}

/// Sort the echoes of a shot along the flight of light and append them.
void appendEchoes(std::vector<TableRow>& table, std::vector<PlacedEcho>& echoes) {
  if (!std::is_sorted(echoes.begin(), echoes.end(), precedes)) {
    std::stable_sort(echoes.begin(), echoes.end(), precedes);
  }
  std::int64_t number = 0;
  for (PlacedEcho& echo : echoes) {
    echo.row.number = ++number;
    echo.row.count = static_cast<std::int64_t>(echoes.size());
    table.push_back(echo.row);
  }
}

/// Append those of the rows of a shot that have no echoes.
void appendEmpty(Table& table, std::span<std::int64_t const> rows, std::int64_t count) {
  for (std::int64_t const row : rows) {
    if (table.echoCounts[static_cast<std::size_t>(row)] == 0) {
      table.rows.push_back({row, &noEcho, {unknown, unknown, unknown}, 0, count, -1});
    }
  }
}

}  // namespace

Table tableOf(Waveforms const& waveforms, DiscreteReturns const& returns, std::span<FoundEcho> echoes,
              Choices const& choices) {
  Table table;
  table.echoCounts.resize(waveforms.size());
  for (FoundEcho& echo : echoes) {
    correct(echo, waveforms, choices);
    ++table.echoCounts[static_cast<std::size_t>(echo.row)];
  }
  ShotsOfRows const shots(waveforms.shotTimes);
  Grouping const rowsOfShot(shots.shots, shots.count);
  Grouping const echoesOfShot = shots.group(echoes);
  Grouping const returnsOfShot = shots.group(returns.rows);
  ShotReturns nearby(waveforms, returns);
  table.rows.reserve(echoes.size() + (choices.keepsEmpty ? waveforms.size() : 0));
  std::vector<PlacedEcho> ofShot;
  for (std::size_t shot = 0; shot < shots.count; ++shot) {
    std::span<std::int64_t const> const rows = rowsOfShot.of(shot);
    nearby.take(rows.front(), returnsOfShot.of(shot));
    ofShot.clear();
    for (std::int64_t const index : echoesOfShot.of(shot)) {
      FoundEcho& echo = echoes[static_cast<std::size_t>(index)];
      ofShot.push_back(placed(echo, waveforms, rows.front()));
      ofShot.back().row.returnIndex = nearby.nearestTo(echo);
    }
    appendEchoes(table.rows, ofShot);
    if (choices.keepsEmpty) {
      appendEmpty(table, rows, static_cast<std::int64_t>(ofShot.size()));
    }
  }
  return table;
}

}  // namespace EchoTable
