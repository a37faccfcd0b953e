#include <fullwaveform/driver/PeakDetectionFamily.h>

#include <cstddef>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

namespace FullWaveform::Bench {
namespace {

/// Blocks of 64 waveforms, including the release of the results; the threshold is estimated.
template <FWFModus modus>
void apply(benchmark::State& state) {
  Block const block =
      blockOf(static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)));
  constexpr bool deconvolves = modus == FWFModus::Deconvolution || modus == FWFModus::Hybrid;
  unsigned int const longest = deconvolves ? static_cast<unsigned int>(state.range(0)) : 0U;
  Testing::Driver driver(modus, scanner(), "no such directory", "bench", longest);
  block.run(driver, -1);  // working memory grows
  PerWaveform const counters(state, waveformCount);
  for (auto iteration : state) {
    benchmark::DoNotOptimize(block.run(driver, -1).size());
  }
}
BENCHMARK(apply<FWFModus::ThreePoint>)->Name("PeakDetectionFamily/apply/mode0")->Apply(samplesAndEchoes);
BENCHMARK(apply<FWFModus::Decomposition>)->Name("PeakDetectionFamily/apply/mode1")->Apply(samplesAndEchoes);
BENCHMARK(apply<FWFModus::Deconvolution>)->Name("PeakDetectionFamily/apply/mode2")->Apply(samplesAndEchoes);
BENCHMARK(apply<FWFModus::Hybrid>)->Name("PeakDetectionFamily/apply/mode3")->Apply(samplesAndEchoes);

}  // namespace
}  // namespace FullWaveform::Bench
