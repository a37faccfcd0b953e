#pragma once

#include <cstdint>

namespace FullWaveform {

/// A fast transform length of at least `minLength`.
///
/// Zeros appended to a signal change its convolution by rounding only, and lengths with small prime factors
/// are several times faster.
/// @return `minLength` itself when it is 0 or greater than 2^30
std::uint32_t fastTransformLength(std::uint32_t minLength);

}  // namespace FullWaveform
