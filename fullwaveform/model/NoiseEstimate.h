#pragma once

#include <cstdint>
#include <span>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Noise level of a record, in counts: a low percentile of the samples above 10 counts, plus five times the
/// spread of the flatter end of the record about its own straight line; doubled for saturated records.
///
/// Fewer than two samples above 10 give 180. Two to 19 give 0x80000000, whose low 16 bits are 0: the line
/// through a single value is not a number.
FULLWAVEFORM_EXPORT std::uint32_t estimateNoise(std::span<unsigned short const> samples);

}  // namespace FullWaveform
