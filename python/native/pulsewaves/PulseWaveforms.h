#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace PulseWaves {

/// How a sampling of a pulse is stored; a number without bits is the same for all pulses.
struct Sampling {
  unsigned int segmentBits = 0;   // of the number of segments: 0, 8 or 16
  unsigned int durationBits = 0;  // 0, 8, 16 or 32
  unsigned int countBits = 0;     // of the number of samples of a segment: 0, 8, 16 or 32
  std::uint32_t segments = 0;     // where they have no bits
  std::uint32_t samples = 0;      // of a segment, where they have no bits
  unsigned int sampleBits = 8;    // 8 or 16
};

/// A run of samples of a pulse.
struct Segment {
  std::size_t pulse;      // index among the pulses that were decoded
  std::size_t sampling;   // index among the samplings
  std::size_t start;      // of its samples, index in `DecodedWaveforms::samples`
  std::size_t count;      // samples
  std::int32_t duration;  // as stored; 0 where it has no bits
};

enum class PulseState : std::uint8_t {
  complete,
  truncated,  // the bytes end before the last sample
  damaged,    // a value that no encoder writes, or a number that does not fit its bits
  tooLong,    // more samples or segments than the limits below
};

struct DecodedWaveforms {
  std::vector<Segment> segments;       // of complete pulses, also empty ones; pulse by pulse
  std::vector<std::uint16_t> samples;  // of all pulses
  std::vector<PulseState> states;      // of each pulse that was visited
  std::vector<std::size_t> starts;     // of its first sample, for each of them
};

// A stream of a few kilobytes can hold billions of equal samples, so their numbers need limits.
constexpr std::size_t maxSegmentSamples = 0xFFFF;
constexpr std::size_t maxPulseSamples = std::size_t{1} << 22U;
constexpr std::size_t maxPulseSegments = std::size_t{1} << 18U;
/// No further pulse is visited after so many samples or segments.
constexpr std::size_t enoughSamples = std::size_t{1} << 24U;
constexpr std::size_t enoughSegments = std::size_t{1} << 20U;

/// Decodes the samples of pulses, until there are enough of them.
///
/// @param bytes  of the file, or a part of it
/// @param offsets  where in `bytes` the extra bytes of each pulse start; any values
/// @param ends  where the stream of each pulse ends at the latest; any values
/// @param extraBytes  before the stream of each pulse
/// @param samplings  with the numbers of bits that the members of `Sampling` list
/// @return at least the first pulse; `states` has one entry for each pulse that was visited
/// @throws std::invalid_argument for other numbers of bits, or different numbers of offsets and ends
DecodedWaveforms decodeWaveforms(std::span<std::uint8_t const> bytes, std::span<std::int64_t const> offsets,
                                 std::span<std::int64_t const> ends, std::size_t extraBytes,
                                 std::span<Sampling const> samplings);

}  // namespace PulseWaves
