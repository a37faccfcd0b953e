#pragma once

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/WavePoints.h>

namespace FullWaveform {

/// The fastest method: each raw peak gets the Gaussian through its sample and both neighbours.
template <class T, class SimplePeakType>
class FittingGaussVia3Points {
 public:
  FittingGaussVia3Points() = default;

  /// All methods are constructed from a scanner; this one uses none of its values.
  FULLWAVEFORM_EXPORT explicit FittingGaussVia3Points(ScannerDevice const& /*scanner*/) {}

  /// Appends the echoes of one waveform to its peaks and sorts them by position.
  ///
  /// Echoes with NaN as position, amplitude and width, from three equal samples, are kept.
  /// @param samples  those that the waveform was constructed from, `wave->length` values in counts
  /// @param wave     must be present: an empty pointer is a programming error and aborts
  /// @return false, with the peaks unchanged, when the range above the noise is shorter than four samples or
  ///         `samples` is null
  FULLWAVEFORM_EXPORT bool apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);
};

extern template class FittingGaussVia3Points<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
