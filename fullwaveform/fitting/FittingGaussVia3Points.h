#pragma once

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/ThreePointGauss.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/WavePoints.h>

namespace FullWaveform {

/// The cheapest extraction: every raw maximum gets the Gaussian through its sample and both neighbours.
///
/// Keeps working memory: one object serves one thread at a time.
template <class T, class SimplePeakType>
class FULLWAVEFORM_EXPORT FittingGaussVia3Points {
 public:
  FittingGaussVia3Points() = default;

  /// Every method is built from a scanner; this one needs none of its values.
  explicit FittingGaussVia3Points(ScannerDevice const& /*scanner*/) {}

  /// Appends the echoes of one waveform to its list, sorted by position.
  ///
  /// @param samples  the record that the waveform was built from, `wave->length` values in counts
  /// @param wave     must be present: an empty pointer is a programming error and aborts
  /// @return false, with the list untouched, when the signal above the noise is shorter than four samples
  bool apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);

 private:
  SimplePeakType simplePeak;
  ThreePointGaussFitter fitter;
};

extern template class FittingGaussVia3Points<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
