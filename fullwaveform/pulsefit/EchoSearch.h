#pragma once

#include <cstddef>
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

/// Matched filter of the residual with the core of the pulse, at whole and half samples.
class MatchedFilter {
 public:
  MatchedFilter(PulseTable const& table, InstructionSet set);

  /// @param fit  evaluated at the echoes found so far
  Candidate best(EchoFit const& fit);

 private:
  struct Taps {
    std::vector<double> values;
    std::vector<double> squares;
  };

  PulseKernels const* kernels;
  Taps taps[2];  ///< at a sample, and half a sample before one
  std::vector<double> weighted;
  std::vector<double> weights;
  std::vector<double> numerator;
  std::vector<double> denominator;
};

/// Finds the number of echoes of one waveform: from no echo on, the change that lowers the cost most is made
/// as long as there is one.
class EchoSearch {
 public:
  EchoSearch(PulseTable const& table, InstructionSet set);

  /// @param fit         holds the waveform
  /// @param baseline    start value
  /// @param costOfEcho  gain of the energy that an echo must bring
  /// @return the hypothesis of the lowest cost, refined with the scatter as it is, and evaluated
  Hypothesis run(EchoFit& fit, double baseline, double costOfEcho);

 private:
  bool addEcho(EchoFit& fit, Hypothesis const& from, Hypothesis& best);
  void reshape(EchoFit& fit, Hypothesis const& from, Hypothesis& best) const;
  void prune(EchoFit& fit, Hypothesis& hypothesis) const;

  MatchedFilter filter;
  double echoCost = 0.0;
};

}  // namespace FullWaveform
