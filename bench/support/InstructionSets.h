#pragma once

#include <benchmark/benchmark.h>

#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform::Bench {

/// The instruction set given by the first argument of a benchmark; skips the benchmark if the machine lacks
/// it.
inline InstructionSet instructionSetOf(benchmark::State& state) {
  auto const set = static_cast<InstructionSet>(state.range(0));
  if (!isAvailable(set)) {
    state.SkipWithError("not available on this machine");
    return InstructionSet::Baseline;
  }
  return set;
}

}  // namespace FullWaveform::Bench
