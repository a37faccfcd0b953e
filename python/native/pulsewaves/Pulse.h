#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include <native/pulsewaves/PulseChunk.h>

namespace PulseWaves {

/// The fields of a pulse as they are stored.
struct Pulse {
  std::int64_t time;
  std::int64_t offset;
  std::array<std::int32_t, 3> anchor;
  std::array<std::int32_t, 3> target;
  std::uint16_t firstReturning;
  std::uint16_t lastReturning;
  std::uint8_t descriptor;
  std::uint8_t flags;
  std::uint8_t intensity;
  std::uint8_t classification;
};

static_assert(sizeof(Pulse) == pulseBytes, "the layout of the file, without gaps");

inline Pulse readPulse(std::uint8_t const* bytes) {
  Pulse pulse;
  std::memcpy(&pulse, bytes, sizeof pulse);
  return pulse;
}

inline void writePulse(Pulse const& pulse, std::uint8_t* bytes) {
  std::memcpy(bytes, &pulse, sizeof pulse);
}

}  // namespace PulseWaves
