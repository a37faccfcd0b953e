#pragma once

#include <span>
#include <vector>

#include <fullwaveform/fitting/leastsquares/PivotedQr.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// Finds a step of the Levenberg-Marquardt method: the one that minimises the linearised sum of squares
/// within a bound of its scaled length (More 1978, doi:10.1007/BFb0067700, section 5).
class LevenbergMarquardtStep {
 public:
  double damping = 0.0;      ///< of the last step, lambda in the paper; the next search starts from it
  std::vector<double> step;  ///< to be subtracted from the parameters
  double length = 0.0;       ///< of the step, scaled

  /// @param qr     of the derivatives, with the residual; the lower triangle of its R is overwritten
  /// @param scale  of every parameter
  /// @param bound  of the scaled length, met to a tenth
  /// @param meter  counts the work if it is not null
  void find(PivotedQr& qr, std::span<double const> scale, double bound, WorkMeter* meter = nullptr);

 private:
  /// Interval in which the damping is searched.
  struct Interval {
    double min;
    double max;
  };

  Interval startSearch(PivotedQr const& qr, std::span<double const> scale, double bound, bool hasFullRank);
  void search(PivotedQr& qr, std::span<double const> scale, double bound, Interval interval,
              WorkMeter* meter);
  void solveUndamped(PivotedQr const& qr, std::size_t rank);
  void solveDamped(PivotedQr& qr, std::span<double const> scale);
  void measure(std::span<double const> scale);
  double slopeUndamped(PivotedQr const& qr, std::span<double const> scale);
  double slopeDamped(PivotedQr const& qr, std::span<double const> scale);
  double gradientLength(PivotedQr const& qr, std::span<double const> scale);

  std::vector<double> scaled;    ///< the step, scaled
  std::vector<double> work;      ///< one value per column of R
  std::vector<double> diagonal;  ///< of the triangle that results from R and the damping
  std::vector<double> row;       ///< of the damping, while it is rotated into R
};

}  // namespace FullWaveform
