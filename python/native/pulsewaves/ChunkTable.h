#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace PulseWaves {

/// The chunks of a file of compressed pulses.
struct ChunkTable {
  std::vector<std::uint32_t> pulses;  // of each chunk; empty if all chunks have the same number
  std::vector<std::uint32_t> bytes;   // of each chunk
  std::size_t consumed = 0;           // bytes of the coded table
  bool intact = false;                // whether all entries were read
};

/// Decodes the entries of a chunk table.
///
/// @param coded  the bytes after the table's version and number of chunks
/// @param chunks  number of entries; the caller checks that it is plausible
/// @param withPulses  whether the chunks have different numbers of pulses, which are then in the table
ChunkTable decodeChunkTable(std::span<std::uint8_t const> coded, std::size_t chunks, bool withPulses);

}  // namespace PulseWaves
