#pragma once

#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/GaussianRefinement.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// Decomposes a waveform into a sum of Gaussians, segment by segment (the idea is that of Wagner et al. 2006,
/// doi:10.1016/j.isprsjprs.2005.12.001).
///
/// Raw peaks get a three-point Gaussian each; then all Gaussians of a segment are refined together by least
/// squares. Weak low-power waveforms get a second loop over the residual of the first one.
/// Keeps working memory: one object serves one thread at a time.
template <class T, class SimplePeakType>
class FittingGaussViaDecomposition {
 public:
  WorkMeter* meter = nullptr;  ///< counts the work of `apply`, which throws what it throws; may be null

  FittingGaussViaDecomposition() = default;

  /// All methods are constructed from a scanner; this one uses none of its values.
  FULLWAVEFORM_EXPORT explicit FittingGaussViaDecomposition(ScannerDevice const& /*scanner*/) {}

  /// Replaces the peaks of one waveform by the Gaussians found in it, ordered by segments and loops.
  ///
  /// The type of an echo names the loop, `GAUSS_DECOMPOSITION_1` or `_2`. Its amplitude and position have the
  /// signs that the refinement left. Segments of fewer than four samples or outside the waveform are skipped.
  ///
  /// @param samples  those that the waveform was constructed from, `wave->length` values in counts
  /// @return false when the pointer to the waveform is empty
  FULLWAVEFORM_EXPORT bool apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);

 private:
  struct Segment;

  std::list<Peak> decompose(Segment const& segment, int extraLoops,
                            Holdex::StrongPtr<WavePoints<T>> const& wave);
  void refine(Segment const& segment, T noise, std::list<Peak>& peaks);

  GaussianRefinement refinement;
  std::vector<double> signal;      ///< of a segment, above the noise
  std::vector<double> parameters;  ///< of its Gaussians
};

extern template class FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
