#pragma once

#include <algorithm>
#include <limits>
#include <span>

namespace FullWaveform {

/// Last index of a record, -1 for an empty one.
template <class T>
int lastIndex(std::span<T const> record) {
  constexpr auto most = static_cast<std::size_t>(std::numeric_limits<int>::max());
  return static_cast<int>(std::min(record.size(), most)) - 1;
}

/// The nearest index that exists in a record, which must not be empty: an echo at the border has its missing
/// neighbour's value taken from the border itself.
template <class T>
int clampedIndex(int index, std::span<T const> record) {
  return std::clamp(index, 0, lastIndex(record));
}

}  // namespace FullWaveform
