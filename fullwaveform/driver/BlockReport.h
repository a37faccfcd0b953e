#pragma once

#include <cstdint>
#include <vector>

#include <fullwaveform/driver/RunStatistics.h>

namespace FullWaveform {

/// Outcome of one row of a block.
enum class RowState : std::uint8_t {
  Kept = 0,                    ///< in the shot map, with the echoes that were found
  SignalTooLow = 1,            ///< largest sample not above the threshold
  Duplicate = 2,               ///< same signature as an earlier waveform of its shot
  InvalidRow = 3,              ///< no samples, NaN shot time, or a value missing in one of the arrays
  TooLongToDeconvolve = 4,     ///< in the shot map without echoes: no usable plane for it
  MergedIntoOtherChannel = 5,  ///< in the shot map without echoes: all are in the other channel
  TooComplex = 6               ///< in the shot map without echoes: its work would exceed the limit
};

/// What the driver records about a block in addition to the shot map.
struct BlockReport {
  RunStatistics statistics;
  std::uint32_t mergedIntoOtherChannel = 0;  ///< waveforms in this state
  std::uint32_t tooLongToDeconvolve = 0;     ///< waveforms in this state
  std::uint32_t tooComplex = 0;              ///< waveforms in this state
  std::vector<RowState> rowStates;           ///< one per row of the block
  std::vector<float> amplitudesInCounts;     ///< of every echo, in the order of the map
};

}  // namespace FullWaveform
