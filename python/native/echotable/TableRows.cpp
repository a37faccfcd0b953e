#include <native/echotable/TableRows.h>

#include <algorithm>
#include <cmath>

#include <native/echotable/Units.h>

namespace EchoTable {
namespace {

constexpr double decibelsPerDecade = 20.0;
FoundEcho const noEcho;

/// Removes the offset of deconvolved positions, and the factor by which the samples were scaled.
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

}  // namespace

ShotTable::ShotTable(Waveforms const& waveforms, DiscreteReturns const& returns,
                     std::span<std::int64_t const> rowsOfEchoes, Choices const& choices)
    : waveforms(waveforms),
      choices(choices),
      shots(waveforms.shotTimes),
      rowsOfShot(shots.ofRows(), shots.count()),
      echoesOfShot(shots.of(rowsOfEchoes), shots.count()),
      returnsOfShot(shots.of(returns.rows), shots.count()),
      nearby(waveforms, returns),
      counts(waveforms.size()),
      rowCount(rowsOfEchoes.size()) {
  for (std::int64_t const row : rowsOfEchoes) {
    ++counts[static_cast<std::size_t>(row)];
  }
  if (choices.keepsEmpty) {
    rowCount += static_cast<std::size_t>(std::count(counts.begin(), counts.end(), 0));
  }
}

bool ShotTable::takeShots(std::size_t rows) {
  firstTaken = endOfTaken;
  for (std::size_t count = 0; count < rows && endOfTaken < shots.count(); ++endOfTaken) {
    count += echoesOfShot.of(endOfTaken).size() + (choices.keepsEmpty ? rowsOfShot.of(endOfTaken).size() : 0);
  }
  return firstTaken < endOfTaken;
}

std::span<std::int64_t const> ShotTable::taken() const {
  return echoesOfShot.of(firstTaken, endOfTaken);
}

std::span<TableRow const> ShotTable::rowsOf(std::span<FoundEcho> echoes) {
  rows.clear();
  for (std::size_t shot = firstTaken; shot < endOfTaken; ++shot) {
    std::size_t const count = echoesOfShot.of(shot).size();
    appendShot(shot, echoes.first(count));
    echoes = echoes.subspan(count);
  }
  return rows;
}

/// Sorts the echoes of a shot along the flight of light and appends them.
void ShotTable::appendShot(std::size_t shot, std::span<FoundEcho> echoes) {
  std::span<std::int64_t const> const ofWaveforms = rowsOfShot.of(shot);
  nearby.take(ofWaveforms.front(), returnsOfShot.of(shot));
  ofShot.clear();
  for (FoundEcho& echo : echoes) {
    correct(echo, waveforms, choices);
    ofShot.push_back(placed(echo, ofWaveforms.front()));
    ofShot.back().row.returnIndex = nearby.nearestTo(echo);
  }
  if (!std::is_sorted(ofShot.begin(), ofShot.end(), precedes)) {
    std::stable_sort(ofShot.begin(), ofShot.end(), precedes);
  }
  auto const count = static_cast<std::int64_t>(ofShot.size());
  std::int64_t number = 0;
  for (PlacedEcho& echo : ofShot) {
    echo.row.number = ++number;
    echo.row.count = count;
    rows.push_back(echo.row);
  }
  if (choices.keepsEmpty) {
    appendEmpty(ofWaveforms, count);
  }
}

/// Appends those of the rows of a shot that have no echoes.
void ShotTable::appendEmpty(std::span<std::int64_t const> rowsOfShot, std::int64_t echoes) {
  for (std::int64_t const row : rowsOfShot) {
    if (counts[static_cast<std::size_t>(row)] == 0) {
      rows.push_back({row, &noEcho, {unknown, unknown, unknown}, 0, echoes, -1});
    }
  }
}

/// Places an echo, and counts its time from the outgoing pulse.
ShotTable::PlacedEcho ShotTable::placed(FoundEcho& echo, std::int64_t firstRow) {
  auto const row = static_cast<std::size_t>(echo.row);
  double const interval = waveforms.samplingIntervals[row];
  double const late = waveforms.phases[row] * interval;
  double const time = echo.position * interval - late;
  echo.time -= late;
  Triple const place = placeOf(waveforms, echo.row, time * picosecondsPerSecond);
  return {{echo.row, &echo, place, 0, 0, -1}, distanceAlongPulse(place, firstRow, echo.row), time};
}

/// Distance of a place from the anchor of the first waveform of the shot.
double ShotTable::distanceAlongPulse(Triple const& place, std::int64_t firstRow, std::int64_t row) {
  if (direction.row != row) {
    Triple const vector = tripleOf(waveforms.directions, row);
    double const length = std::sqrt(dot(vector, vector));
    direction = {row, {}};
    if (length > 0.0) {
      std::transform(vector.begin(), vector.end(), direction.unit.begin(),
                     [length](double d) { return d / length; });
    }
  }
  // Directions point back to the scanner.
  return -dot(difference(place, tripleOf(waveforms.anchors, firstRow)), direction.unit);
}

bool ShotTable::precedes(PlacedEcho const& a, PlacedEcho const& b) {
  if (lessNanLast(a.distance, b.distance) || lessNanLast(b.distance, a.distance)) {
    return lessNanLast(a.distance, b.distance);
  }
  return lessNanLast(a.time, b.time);
}

}  // namespace EchoTable
