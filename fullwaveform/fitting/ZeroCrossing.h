#pragma once

#include <functional>
#include <list>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Settings of the simple peak finder: local maxima, where the first difference turns from rising to falling.
class FULLWAVEFORM_EXPORT ZeroCrossing {
 public:
  /// Given a sample and its index, the value to use for it, in counts.
  using SampleAccessor = std::function<unsigned short(unsigned short const& sample, double index)>;

  /// Least rise or fall beside a maximum, counts.
  double minimumDifference = 0.0;
  /// Empty: the samples as they stand.
  SampleAccessor sampleAccessor;
};

/// Conversion of a computed value before it is compared, counts.
using ValueConversion = std::function<double(double value)>;

/// Truncates to an integer and keeps its low 16 bits; what does not fit 32 bits or is not a number gives 0.
FULLWAVEFORM_EXPORT double toSixteenBits(double value);

/// Appends a raw echo for every local maximum of a range of samples.
///
/// A maximum is above the noise, rises from its predecessor, does not rise to its successor, and stands out
/// by `minimumDifference` on one side at least; of a plateau the first sample counts. When the list is still
/// empty after the scan, the largest sample of the range becomes an echo if it is above the noise.
///
/// @param samples      the whole record; neighbours outside it are read as its nearest sample
/// @param first, last  first and last index of the range; the part outside the record is left out, and
///                     nothing is added when first > last
/// @param noise        counts
/// @param peaks        receives the echoes behind those it holds already, in index order
/// @return true
FULLWAVEFORM_EXPORT bool findRawPeaks(std::span<unsigned short const> samples, int first, int last,
                                      unsigned short noise, std::list<Peak>& peaks,
                                      ZeroCrossing const& zeroCrossing);

/// The same over computed values; each is read through `convert` (empty: as it stands).
FULLWAVEFORM_EXPORT bool findRawPeaks(std::span<double const> values, int first, int last, double noise,
                                      std::list<Peak>& peaks, ValueConversion const& convert,
                                      double minimumDifference);

}  // namespace FullWaveform
