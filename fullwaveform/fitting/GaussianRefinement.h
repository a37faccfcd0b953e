#pragma once

#include <memory>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

class LevenbergMarquardt;

/// Fits a sum of Gaussians to a signal by least squares.
///
/// Levenberg-Marquardt as in MINPACK (More 1978, doi:10.1007/BFb0067700), with at most 20 evaluations of the
/// sum and relative tolerances of 0.001, far below the noise of a waveform. Keeps working memory: one object
/// serves one thread at a time.
class GaussianRefinement {
 public:
  FULLWAVEFORM_EXPORT GaussianRefinement();
  GaussianRefinement(GaussianRefinement const&) = delete;
  GaussianRefinement& operator=(GaussianRefinement const&) = delete;
  FULLWAVEFORM_EXPORT ~GaussianRefinement();

  /// @param signal      counts above the noise
  /// @param first       sample index of the first value
  /// @param parameters  start values: amplitude (counts), position and standard deviation (sample indices) of
  ///                    each Gaussian; receives the result. Amplitudes and positions enter the sum with their
  ///                    absolute values and keep the signs that the minimiser left. Unchanged when there are
  ///                    fewer samples than parameters, or when a parameter is not finite.
  /// @param meter       counts the work if it is not null; `refine` throws what `WorkMeter::spend` throws,
  /// and
  ///                    then leaves the parameters as they were after the last accepted step
  /// @return number of evaluations of the sum; 0 when the parameters were left unchanged for these reasons
  FULLWAVEFORM_EXPORT int refine(std::span<double const> signal, int first, std::span<double> parameters,
                                 WorkMeter* meter = nullptr);

 private:
  std::unique_ptr<LevenbergMarquardt> minimiser;
};

}  // namespace FullWaveform
