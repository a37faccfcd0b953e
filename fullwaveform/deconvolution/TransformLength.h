#pragma once

#include <cstdint>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// The length to plan a transform with that must hold `least` values: that many or somewhat more. Zeros
/// behind a signal leave its convolution the same to rounding, and lengths of small factors are several times
/// faster.
///
/// @return `least` itself when it is 0 or more than 2^30
FULLWAVEFORM_EXPORT std::uint32_t fastTransformLength(std::uint32_t least);

}  // namespace FullWaveform
