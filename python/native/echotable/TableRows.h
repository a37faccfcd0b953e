#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <native/echotable/BlockEchoes.h>
#include <native/echotable/Grouping.h>
#include <native/echotable/ShotReturns.h>
#include <native/echotable/ShotsOfRows.h>

namespace EchoTable {

/// A row of the table of a block.
struct TableRow {
  std::int64_t row;          ///< of the block
  FoundEcho const* echo;     ///< without values in the row of a waveform without echoes
  Triple place;              ///< coordinate units
  std::int64_t number;       ///< within the shot, 1 nearest to the scanner; 0 without an echo
  std::int64_t count;        ///< echoes of the shot
  std::int64_t returnIndex;  ///< discrete return to which the echo corresponds, -1 for none
};

/// What is done to the echoes of a block before they are placed.
struct Choices {
  double positionOffset = 0.0;       ///< samples to subtract from positions of deconvolved echoes
  std::uint8_t deconvolvedType = 0;  ///< of these
  bool keepsEmpty = false;           ///< whether waveforms without echoes have a row
};

/// The rows of the table of a block, shot by shot in ascending order of time, the echoes of a shot along the
/// flight of light.
///
/// The waveforms of a shot may begin at different ranges, so echoes are compared by their distance along the
/// pulse; then by their time. Rows of waveforms without echoes follow the echoes of their shot.
///
/// Some shots are taken at a time, so that their echoes stay in the cache:
///
///     while (table.takeShots(rows)) { table.rowsOf(echoes at table.taken()) ... }
class ShotTable {
 public:
  /// @param rowsOfEchoes  row of the block in which each echo was found; those of a waveform are consecutive
  ShotTable(Waveforms const& waveforms, DiscreteReturns const& returns,
            std::span<std::int64_t const> rowsOfEchoes, Choices const& choices);

  /// Rows of the whole table.
  [[nodiscard]] std::size_t size() const { return rowCount; }

  /// Number of echoes of each waveform.
  [[nodiscard]] std::vector<std::int64_t> const& echoCounts() const { return counts; }

  /// Takes the next shots, with at least so many rows unless fewer are left.
  ///
  /// @return whether there was a shot
  bool takeShots(std::size_t rows);

  /// Indices of the echoes of the shots that were taken; those of a waveform are consecutive.
  [[nodiscard]] std::span<std::int64_t const> taken() const;

  /// The rows of the shots that were taken; valid until the next call.
  ///
  /// @param echoes  those of `taken()`, corrected in place: offset of positions, time of the outgoing pulse,
  ///                scale of the samples; the rows refer to them
  std::span<TableRow const> rowsOf(std::span<FoundEcho> echoes);

 private:
  /// An echo of a shot with the keys of its place among the others.
  struct PlacedEcho {
    TableRow row;
    double distance;  ///< coordinate units along the pulse
    double time;      ///< s after the first sample of its waveform
  };
  /// Direction of the pulse of a waveform.
  struct Direction {
    std::int64_t row = -1;
    Triple unit{};
  };

  static bool precedes(PlacedEcho const& a, PlacedEcho const& b);
  [[nodiscard]] PlacedEcho placed(FoundEcho& echo, std::int64_t firstRow);
  [[nodiscard]] double distanceAlongPulse(Triple const& place, std::int64_t firstRow, std::int64_t row);
  void appendShot(std::size_t shot, std::span<FoundEcho> echoes);
  void appendEmpty(std::span<std::int64_t const> rowsOfShot, std::int64_t echoes);

  Waveforms const waveforms;
  Choices const choices;
  ShotsOfRows const shots;
  Grouping const rowsOfShot;
  Grouping const echoesOfShot;
  Grouping const returnsOfShot;
  ShotReturns nearby;
  std::vector<std::int64_t> counts;
  std::size_t rowCount;
  std::size_t firstTaken = 0;  ///< shot
  std::size_t endOfTaken = 0;
  std::vector<TableRow> rows;
  std::vector<PlacedEcho> ofShot;
  Direction direction;
};

}  // namespace EchoTable
