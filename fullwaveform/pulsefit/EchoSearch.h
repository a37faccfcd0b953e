#pragma once

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/EchoFit.h>
#include <fullwaveform/pulsefit/MatchedFilter.h>

namespace FullWaveform {

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
  void settle(EchoFit& fit, Hypothesis& hypothesis) const;

  MatchedFilter filter;
  double echoCost = 0.0;
  double widthCost = 0.0;
};

}  // namespace FullWaveform
