#include <fullwaveform/scanner/SystemWave.h>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

namespace FullWaveform::Bench {
namespace {

/// Synthesis and normalisation, done once per plane of a ladder.
void synthesise(benchmark::State& state) {
  ScannerDevice const device = scanner();
  PerWaveform const counters(state, 1);
  for (auto iteration : state) {
    auto const wave = createNormalizedSysWave(device.expsum_a, device.expsum_b, device.sampling_time / 5.0,
                                              static_cast<unsigned int>(state.range(0)), {});
    benchmark::DoNotOptimize(wave->data());
  }
}
BENCHMARK(synthesise)->Name("SystemWave")->ArgName("values")->Arg(12)->Arg(56)->Arg(560);

}  // namespace
}  // namespace FullWaveform::Bench
