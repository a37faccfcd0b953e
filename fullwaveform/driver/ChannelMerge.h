#pragma once

#include <list>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Keeps one copy of every echo that both receiver channels of a shot saw.
///
/// Echoes less than three sampling intervals apart are the same. The copy in the low-power channel stays
/// unless it is saturated (above 3000 counts); then the one in the other channel stays.
///
/// @param normal            echoes of a waveform of the normal channel, times in s, amplitudes in counts
/// @param lowPower          echoes of a waveform of the low-power channel
/// @param samplingInterval  s
FULLWAVEFORM_EXPORT void mergeChannels(std::list<Peak>& normal, std::list<Peak>& lowPower,
                                       double samplingInterval);

}  // namespace FullWaveform
