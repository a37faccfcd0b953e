#pragma once

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// 20 log10(counts * unit) in dB; exactly 0 where counts * unit is below 1.0001.
FULLWAVEFORM_EXPORT float toDecibel(double counts, double unit);

}  // namespace FullWaveform
