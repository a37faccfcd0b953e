#pragma once

#include <benchmark/benchmark.h>

#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform::Bench {

/// The instruction set that the first argument of a benchmark names; the benchmark is passed over where the
/// machine has not got it.
inline InstructionSet instructionSetOf(benchmark::State& state) {
  auto const set = static_cast<InstructionSet>(state.range(0));
  if (!isAvailable(set)) {
    state.SkipWithError("not on this machine");
    return InstructionSet::Baseline;
  }
  return set;
}

}  // namespace FullWaveform::Bench
