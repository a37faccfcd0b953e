#pragma once

#include <list>
#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/GaussianRefinement.h>
#include <fullwaveform/fitting/ResidualAccessor.h>
#include <fullwaveform/fitting/ThreePointGauss.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/WavePoints.h>

namespace FullWaveform {

/// Decomposes a waveform into a sum of Gaussians, segment by segment (the form of the decomposition is that
/// of Wagner et al. 2006, doi:10.1016/j.isprsjprs.2005.12.001).
///
/// Raw maxima get a three-point Gaussian each, then all Gaussians of a segment are refined together by least
/// squares. Weak low-power waveforms get a second loop over what the first one left unexplained.
/// Keeps working memory: one object serves one thread at a time.
template <class T, class SimplePeakType>
class FULLWAVEFORM_EXPORT FittingGaussViaDecomposition {
 public:
  FittingGaussViaDecomposition() = default;

  /// Every method is built from a scanner; this one needs none of its values.
  explicit FittingGaussViaDecomposition(ScannerDevice const& /*scanner*/) {}

  /// Replaces the echoes of one waveform by the Gaussians found in it, in the order of segments and loops.
  ///
  /// The type of an echo tells the loop, `GAUSS_DECOMPOSITION_1` or `_2`. Its amplitude and position have the
  /// signs that the refinement left. Segments of fewer than four samples are passed over.
  ///
  /// @param samples  the record that the waveform was built from, `wave->length` values in counts
  /// @return false when the pointer to the waveform is empty
  bool apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);

 private:
  struct Segment;

  std::list<Peak> decompose(Segment const& segment, int extraLoops,
                            Holdex::StrongPtr<WavePoints<T>> const& wave);
  bool findStarts(Segment const& segment, ResidualAccessor const& residual, WavePoints<T>& wave);
  void refine(Segment const& segment, T noise, std::list<Peak>& peaks);

  ThreePointGaussFitter fitter;
  GaussianRefinement refinement;
  std::vector<double> parameters;  ///< of the Gaussians that are refined
};

extern template class FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
