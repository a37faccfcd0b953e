#pragma once

#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/PivotedQr.h>

namespace FullWaveform {

/// Finds the step of Levenberg and Marquardt: the one that minimises the linearised sum of squares within a
/// bound on its scaled length (More 1978, doi:10.1007/BFb0067700, section 5).
class FULLWAVEFORM_EXPORT LevenbergMarquardtStep {
 public:
  double damping = 0.0;      ///< of the step found last, in the paper lambda; the next search starts there
  std::vector<double> step;  ///< to be taken off the parameters
  double length = 0.0;       ///< of the step, scaled

  /// @param qr     of the derivatives, with the residual; the lower triangle of its R is used up
  /// @param scale  of every parameter
  /// @param bound  of the scaled length, met to a tenth
  void find(PivotedQr& qr, std::span<double const> scale, double bound);

 private:
  /// Between which the damping is looked for.
  struct Range {
    double lowest;
    double highest;
  };

  Range startSearch(PivotedQr const& qr, std::span<double const> scale, double bound, bool isRegular);
  void search(PivotedQr& qr, std::span<double const> scale, double bound, Range range);
  void findUndamped(PivotedQr const& qr, std::size_t rank);
  void findDamped(PivotedQr& qr, std::span<double const> scale);
  void measure(std::span<double const> scale);
  double fallUndamped(PivotedQr const& qr, std::span<double const> scale);
  double fallDamped(PivotedQr const& qr, std::span<double const> scale);
  double gradientLength(PivotedQr const& qr, std::span<double const> scale);

  std::vector<double> scaled;    ///< the step, scaled
  std::vector<double> work;      ///< a value per column of R
  std::vector<double> diagonal;  ///< of the triangle that the damping makes of R
  std::vector<double> row;       ///< of the damping, while it is turned into R
};

}  // namespace FullWaveform
