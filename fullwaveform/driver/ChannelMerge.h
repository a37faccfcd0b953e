#pragma once

#include <list>

#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Removes one copy of every echo that was recorded in both receiver channels of a shot.
///
/// Echoes less than three sampling intervals apart are the same echo. The low-power copy is kept unless it is
/// saturated (above 3000 counts); then the high-power copy is kept.
///
/// @param highPower         echoes of a high-power waveform, times in s, amplitudes in counts
/// @param lowPower          echoes of a low-power waveform of the same shot
/// @param samplingInterval  s
void mergeChannels(std::list<Peak>& highPower, std::list<Peak>& lowPower, double samplingInterval);

}  // namespace FullWaveform
