#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/leastsquares/GaussianSum.h>
#include <fullwaveform/fitting/leastsquares/LevenbergMarquardtStep.h>
#include <fullwaveform/fitting/leastsquares/PivotedQr.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// The Levenberg-Marquardt method as in MINPACK (More 1978, doi:10.1007/BFb0067700) for sums of Gaussians.
///
/// Working memory is kept and grows with the longest signal and the most parameters: an evaluation or a step
/// allocates nothing.
class LevenbergMarquardt {
 public:
  explicit LevenbergMarquardt(InstructionSet set = widestInstructionSet()) : sum(set), qr(set) {}

  /// See `GaussianRefinement::refine`.
  int minimise(std::span<double const> signal, int first, std::span<double> parameters,
               WorkMeter* meter = nullptr);

 private:
  /// Effect of a trial step on the sum of squares, relative to the sum before it.
  struct Reduction {
    /// @param linear  reduction of the linearised sum
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
  void linearise();
  void initialiseScale(std::span<double const> parameters);
  void raiseScale();
  Reduction tryStep(std::span<double const> parameters, bool isFirst, WorkMeter* meter);
  void adaptBound(Reduction const& reduction);
  bool hasConverged(Reduction const& reduction) const;
  double residualLength(double squaresOfResidual);
  double scaledLength(std::span<double const> values);
  double scaledGradient();
  double linearisedChange();

  GaussianSum sum;
  PivotedQr qr;
  LevenbergMarquardtStep search;
  std::vector<double> squares;   ///< sums of squares of the columns of derivatives
  std::vector<double> norms;     ///< of the same columns
  std::vector<double> scale;     ///< of each parameter: the largest norm of its column so far
  std::vector<double> trial;     ///< parameters after the step
  std::vector<double> work;      ///< one value per parameter
  double length = 0.0;           ///< of the residual, counts
  double trialLength = 0.0;      ///< of the residual after the step, counts
  double stepLength = 0.0;       ///< scaled
  double bound = 0.0;            ///< of the length of the next step
  double parameterLength = 0.0;  ///< scaled
  double gradient = 0.0;         ///< largest cosine between the residual and a column
};

}  // namespace FullWaveform
