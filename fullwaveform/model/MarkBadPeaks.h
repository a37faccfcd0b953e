#pragma once

#include <list>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Sets the quality of implausible echoes to `EXCEEDS_RANGE`; they stay in the list.
///
/// An echo is implausible when its position is outside [firstIndex, lastIndex], its amplitude outside
/// [minimumAmplitude, 4096] counts or its width outside [0, 50] samples. NaN values pass. Existing marks are
/// not removed.
/// @return true when no echo was marked
template <class T>
FULLWAVEFORM_EXPORT bool markBadPeaks(std::list<Peak>& peaks, int const& firstIndex, int const& lastIndex,
                                      T const& minimumAmplitude);

extern template bool markBadPeaks<unsigned short>(std::list<Peak>&, int const&, int const&,
                                                  unsigned short const&);

/// Removes every echo of quality `EXCEEDS_RANGE` or worse.
void removeBadPeaks(std::list<Peak>& peaks);

}  // namespace FullWaveform
