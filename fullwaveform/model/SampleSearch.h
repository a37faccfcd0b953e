#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace FullWaveform {

/// Neighbouring samples that are compared at once.
using SampleLanes [[gnu::vector_size(16)]] = unsigned short;
inline constexpr std::size_t sampleLanes = sizeof(SampleLanes) / sizeof(unsigned short);

/// The samples from an address on, which need not be aligned.
inline SampleLanes loadSamples(unsigned short const* samples) {
  SampleLanes lanes;
  std::memcpy(&lanes, samples, sizeof lanes);
  return lanes;
}

/// The larger sample of each lane.
inline SampleLanes largerOf(SampleLanes left, SampleLanes right) {
  return left > right ? left : right;
}

/// Lanes for which a comparison is true, in ascending order.
class ChosenLanes {
 public:
  /// @param comparison  result of comparing two `SampleLanes`
  template <class Comparison>
  explicit ChosenLanes(Comparison comparison) {
    static_assert(sizeof comparison == sizeof words);
    std::memcpy(words, &comparison, sizeof words);
  }

  [[nodiscard]] bool empty() const { return (words[0] | words[1]) == 0; }

  /// The first lane; there must be one.
  [[nodiscard]] std::size_t first() const {
    return words[0] != 0 ? laneOf(words[0]) : lanesPerWord + laneOf(words[1]);
  }

  /// Drops the first lane; there must be one.
  void dropFirst() {
    std::uint64_t& word = words[0] != 0 ? words[0] : words[1];
    word &= ~(std::uint64_t{0xFFFF} << (bitsPerLane * laneOf(word)));
  }

 private:
  static constexpr std::size_t bitsPerLane = 16;
  static constexpr std::size_t lanesPerWord = 4;
  static_assert(std::endian::native == std::endian::little, "the first lane is in the lowest bits");

  static std::size_t laneOf(std::uint64_t word) {
    return static_cast<std::size_t>(std::countr_zero(word)) / bitsPerLane;
  }

  std::uint64_t words[2] = {0, 0};
};

/// Index of the first sample from `first` on for which a condition is true; `end` if there is none.
///
/// @param holds  given a sample or `SampleLanes`, compares it
template <class Condition>
std::size_t firstSampleWhere(unsigned short const* samples, std::size_t first, std::size_t end,
                             Condition const& holds) {
  for (; first + sampleLanes <= end; first += sampleLanes) {
    ChosenLanes const chosen(holds(loadSamples(samples + first)));
    if (!chosen.empty()) {
      return first + chosen.first();
    }
  }
  while (first < end && !holds(samples[first])) {
    ++first;
  }
  return first;
}

}  // namespace FullWaveform
