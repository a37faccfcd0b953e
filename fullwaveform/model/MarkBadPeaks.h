#pragma once

#include <list>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Marks the echoes that cannot be real with `EXCEEDS_RANGE`; they stay in the list.
///
/// An echo is marked when its position lies outside [firstIndex, lastIndex], its amplitude outside
/// [minimumAmplitude, 4096] counts or its width outside [0, 50] samples. All bounds are admissible, and what
/// is not a number passes. Marks are only set, never taken back.
/// @return true when nothing was marked
template <class T>
FULLWAVEFORM_EXPORT bool markBadPeaks(std::list<Peak>& peaks, int const& firstIndex, int const& lastIndex,
                                      T const& minimumAmplitude);

extern template bool markBadPeaks<unsigned short>(std::list<Peak>&, int const&, int const&,
                                                  unsigned short const&);

/// Removes every echo of quality `EXCEEDS_RANGE` or worse.
FULLWAVEFORM_EXPORT void removeBadPeaks(std::list<Peak>& peaks);

}  // namespace FullWaveform
