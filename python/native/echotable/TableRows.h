#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <native/echotable/BlockEchoes.h>

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

/// The rows of the table of a block, and the number of echoes of each waveform.
struct Table {
  std::vector<TableRow> rows;
  std::vector<std::int64_t> echoCounts;
};

/// The echoes of a block, shot by shot in ascending order of time, those of a shot along the flight of light.
///
/// The waveforms of a shot may begin at different ranges, so echoes are compared by their distance along the
/// pulse; then by their time. Rows of waveforms without echoes follow the echoes of their shot.
///
/// @param echoes  corrected in place: offset of positions, time of the outgoing pulse, scale of the samples;
///                the table refers to them
Table tableOf(Waveforms const& waveforms, DiscreteReturns const& returns, std::span<FoundEcho> echoes,
              Choices const& choices);

}  // namespace EchoTable
