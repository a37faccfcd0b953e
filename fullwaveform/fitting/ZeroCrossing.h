#pragma once

#include <functional>
#include <list>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Settings of the peak finder: a peak is a local maximum, where the first difference changes from rising to
/// falling.
class FULLWAVEFORM_EXPORT ZeroCrossing {
 public:
  /// Given a sample and its index, the value to use for it, in counts.
  using SampleAccessor = std::function<unsigned short(unsigned short const& sample, double index)>;

  /// Smallest rise or fall next to a maximum that makes it a peak, counts.
  double minimumDifference = 0.0;
  /// Replaces the samples; if empty, the samples themselves are used.
  SampleAccessor sampleAccessor;
};

/// Conversion of a computed value before it is compared, counts.
using ValueConversion = std::function<double(double value)>;

/// Truncates to an integer and keeps its low 16 bits; NaN and values that do not fit 32 bits give 0.
FULLWAVEFORM_EXPORT double toSixteenBits(double value);

/// Appends a raw peak for every local maximum of a range of samples.
///
/// The sample of a peak is above the noise, higher than its predecessor, not lower than its successor, and
/// exceeds at least one of them by `minimumDifference`; of a plateau it is the first sample. If the list is
/// still empty after the scan, the largest sample of the range becomes a peak, provided that it is above the
/// noise.
///
/// @param samples      the whole waveform; neighbours outside it are replaced by its nearest sample
/// @param first, last  first and last index of the range; clipped to the waveform. No peak is added when
///                     first > last.
/// @param noise        counts
/// @param peaks        the peaks are appended to it in index order
/// @return true
FULLWAVEFORM_EXPORT bool findRawPeaks(std::span<unsigned short const> samples, int first, int last,
                                      unsigned short noise, std::list<Peak>& peaks,
                                      ZeroCrossing const& zeroCrossing);

/// The same over computed values.
/// @param convert  applied to every value; if empty, the values themselves are used
FULLWAVEFORM_EXPORT bool findRawPeaks(std::span<double const> values, int first, int last, double noise,
                                      std::list<Peak>& peaks, ValueConversion const& convert,
                                      double minimumDifference);

}  // namespace FullWaveform
