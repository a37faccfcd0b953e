#pragma once

#include <cstddef>

namespace FullWaveform {

/// Kernels process eight doubles at a time on every machine: with the number of lanes and the order of every
/// sum fixed, all instruction sets give the same digits.
inline constexpr std::size_t laneCount = 8;

}  // namespace FullWaveform
