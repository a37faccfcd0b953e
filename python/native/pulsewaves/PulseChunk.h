#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace PulseWaves {

/// What a record of a pulse consists of, in its order.
enum class ItemType : std::uint16_t {
  extraBytes = 1000,
  pulse = 1001,           // 48 bytes; always the first item
  sourceNumber16 = 1002,  // 2 bytes
  sourceNumber32 = 1003,  // 4 bytes
};

struct Item {
  ItemType type;
  std::size_t bytes;
};

constexpr std::size_t pulseBytes = 48;

/// Pulses of a chunk.
struct PulseChunk {
  std::vector<std::uint8_t> records;  // pulse after pulse, item after item, as in an uncompressed file
  std::size_t pulses = 0;             // complete ones
  std::size_t consumed = 0;           // bytes of the chunk
  bool truncated = false;             // the bytes ended before the last pulse
  bool damaged = false;               // a value that no encoder writes comes after the last pulse
};

/// Decodes the pulses of a chunk.
///
/// @param chunk  first byte of the chunk to its last one or any later one
/// @param items  a pulse, then any others; each of its type's size
/// @param pulses  how many pulses to decode; the memory for them is only allocated as they are found
/// @throws std::invalid_argument if the items do not start with a pulse or have a wrong size
PulseChunk decodePulseChunk(std::span<std::uint8_t const> chunk, std::span<Item const> items,
                            std::size_t pulses);

}  // namespace PulseWaves
