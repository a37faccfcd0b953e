#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/GaussianSum.h>
#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/LevenbergMarquardtStep.h>
#include <fullwaveform/fitting/PivotedQr.h>

namespace FullWaveform {

/// Fits a sum of Gaussians to a stretch of signal by least squares, from a start.
///
/// Levenberg-Marquardt as in MINPACK (More 1978, doi:10.1007/BFb0067700), stopped early: at most 20
/// evaluations of the sum, relative tolerances of 0.001. That is far finer than the noise of a record and
/// coarse for exact arithmetic.
/// Keeps its working memory, which grows with the longest stretch and the most Gaussians it has met: nothing
/// is allocated for an evaluation or a step. One object serves one thread at a time.
class FULLWAVEFORM_EXPORT GaussianRefinement {
 public:
  explicit GaussianRefinement(InstructionSet set = widestInstructionSet()) : sum(set), qr(set) {}

  /// @param samples     counts
  /// @param noise       counts, taken off every sample
  /// @param first       sample index of the first value
  /// @param parameters  the start, as in `GaussianSum.h`; receives the result with the signs that the
  ///                    minimiser left. Unchanged when there are fewer samples than parameters or when one of
  ///                    the parameters is not finite.
  /// @return how often the sum was evaluated; 0 when the fit was refused
  template <class T>
  int refine(std::span<T const> samples, double noise, int first, std::span<double> parameters) {
    if (!isFittable(samples.size(), parameters)) {
      return 0;
    }
    sum.take(samples, noise, first, parameters.size());
    return minimise(parameters);
  }

 private:
  /// What a trial step did to the sum of squares, relative to what it was.
  struct Reduction {
    /// @param linear  what the linearised sum loses
    /// @param damped  damping times the square of the scaled step
    Reduction(double actual, double linear, double damped)
        : actual(actual),
          predicted(linear + 2.0 * damped),
          slope(-(linear + damped)),
          ratio(predicted == 0.0 ? 0.0 : actual / predicted) {}

    double actual;
    double predicted;
    double slope;
    double ratio;  ///< of actual to predicted
  };

  static bool isFittable(std::size_t samples, std::span<double const> parameters);
  int minimise(std::span<double> parameters);
  void linearise();
  void startScale(std::span<double const> parameters);
  void raiseScale();
  Reduction tryStep(std::span<double const> parameters, bool isFirst);
  void adaptBound(Reduction const& reduction);
  bool hasConverged(Reduction const& reduction) const;
  double residualLength(double squaresOfResidual);
  double scaledLength(std::span<double const> values);
  double scaledGradient();
  double linearisedStep();

  GaussianSum sum;
  PivotedQr qr;
  LevenbergMarquardtStep search;
  std::vector<double> squares;   ///< of the columns of the derivatives
  std::vector<double> norms;     ///< of the same
  std::vector<double> scale;     ///< of the parameters: the largest norm that each one's column has had
  std::vector<double> trial;     ///< parameters after the step
  std::vector<double> work;      ///< a value per parameter
  double length = 0.0;           ///< of the residual, counts
  double trialLength = 0.0;      ///< the same after the step
  double stepLength = 0.0;       ///< in scale
  double bound = 0.0;            ///< of the next step's length
  double parameterLength = 0.0;  ///< in scale
  double gradient = 0.0;         ///< largest cosine between the residual and a column
};

/// The same, once: for a signal without noise, with working memory of its own.
FULLWAVEFORM_EXPORT int refineGaussians(std::span<double const> signal, int first,
                                        std::span<double> parameters);

}  // namespace FullWaveform
