#pragma once

#include <cstddef>
#include <cstdint>

namespace FullWaveform {

/// Disagreements between the samples of a block and its per-waveform arrays.
struct BlockMismatch {
  std::size_t invalidRows = 0;    ///< rows in the state `RowState::InvalidRow`
  std::size_t clippedCounts = 0;  ///< sample counts above the row length
  std::size_t surplusValues = 0;  ///< values of the longest array after the last row
};

/// Sends one console message if there is a mismatch.
void reportMismatches(BlockMismatch const& mismatch, std::size_t rowLength);

/// Sends one console message each if waveforms could not be deconvolved, or exceeded the limit of the work.
void reportSkipped(std::uint32_t tooLongToDeconvolve, std::uint32_t tooComplex);

}  // namespace FullWaveform
