#pragma once

#include <algorithm>
#include <limits>
#include <span>

namespace FullWaveform {

/// Last index of a waveform, -1 for an empty one.
template <class T>
int lastIndex(std::span<T const> samples) {
  constexpr auto maxSize = static_cast<std::size_t>(std::numeric_limits<int>::max());
  return static_cast<int>(std::min(samples.size(), maxSize)) - 1;
}

/// The nearest valid index of a waveform, which must not be empty: the missing neighbour of a sample at the
/// border is replaced by the sample itself.
template <class T>
int clampedIndex(int index, std::span<T const> samples) {
  return std::clamp(index, 0, lastIndex(samples));
}

}  // namespace FullWaveform
