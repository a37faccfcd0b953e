#pragma once

#include <cstdint>
#include <span>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Threshold of a waveform, in counts: the 5th percentile of the samples above 10 counts, plus five times the
/// spread of the flatter end of the waveform about a straight line; doubled when the maximum exceeds 1800.
///
/// Fewer than two samples above 10 give 180. Two to 19 give 0x80000000, whose low 16 bits are 0, because the
/// line through a single value has a NaN slope.
FULLWAVEFORM_EXPORT std::uint32_t estimateNoise(std::span<unsigned short const> samples);

}  // namespace FullWaveform
