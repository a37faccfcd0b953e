#pragma once

#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/EchoFit.h>

namespace FullWaveform {

/// The place where one more echo explains the residual best.
struct Candidate {
  double position = 0.0;
  double amplitude = 0.0;
  double square = 0.0;  ///< of its amplitude over the standard deviation; 0 if there is none
};

/// Matched filter of the residual with the core of the pulse.
///
/// It is computed at whole samples. Between them it is a parabola: the autocorrelation of a pulse is wider
/// than the pulse, which covers several samples.
class MatchedFilter {
 public:
  MatchedFilter(PulseTable const& table, InstructionSet set);

  /// @param fit  evaluated at the echoes found so far
  Candidate best(EchoFit const& fit);

 private:
  [[nodiscard]] double squareAt(std::size_t sample) const;

  PulseKernels const* kernels;
  std::vector<double> taps;
  std::vector<double> squaredTaps;
  std::vector<double> weighted;
  std::vector<double> weights;
  std::vector<double> numerator;
  std::vector<double> denominator;
};

}  // namespace FullWaveform
