#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <native/pulsewaves/RangeDecoder.h>

namespace PulseWaves {

/// A segment of samples of 8 bits that is next in its stream.
struct LaneSegment {
  RangeDecoder* stream;
  std::span<std::uint16_t> samples;  // to be filled
};

struct LaneStates;

/// Decodes segments of several streams at once, one in each lane of vectors.
///
/// Every symbol depends on the one before, so that a stream by itself leaves the processor waiting; and which
/// symbol follows cannot be predicted, so that nothing here branches on it. Needs AVX2, with which vectors
/// are read from different places of memory. The samples and the states of the streams are those of
/// `NumberDecoder<8>`.
class SampleLanes {
 public:
  static constexpr std::size_t lanes = 8;
  /// Models of so many symbols never reach the total at which counts are halved.
  static constexpr std::size_t maxSamples = 4096;

  /// Whether this machine has the instructions.
  static bool areAvailable();

  /// Whether the segments can be decoded at once, and are long and many enough for this to be faster.
  ///
  /// @param bytes  that contain all streams; only these are read
  static bool suit(std::span<LaneSegment const> segments, std::span<std::uint8_t const> bytes);

  SampleLanes();
  ~SampleLanes();
  SampleLanes(SampleLanes const&) = delete;
  SampleLanes& operator=(SampleLanes const&) = delete;

  /// Decodes segments that suit.
  void decode(std::span<LaneSegment const> segments, std::span<std::uint8_t const> bytes);

 private:
  std::unique_ptr<LaneStates> states;
};

}  // namespace PulseWaves
