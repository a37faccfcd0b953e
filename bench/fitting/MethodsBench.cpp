#include <cstddef>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/fitting/FittingGaussVia3Points.h>
#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>

namespace FullWaveform::Bench {
namespace {

template <class Method>
void apply(benchmark::State& state) {
  Waveforms const waveforms(static_cast<std::size_t>(state.range(0)),
                            static_cast<std::size_t>(state.range(1)));
  Method method;
  applyToEach(method, waveforms);  // working memory grows
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    applyToEach(method, waveforms);
  }
}
BENCHMARK(apply<FittingGaussVia3Points<unsigned short, ZeroCrossing>>)
    ->Name("FittingGaussVia3Points/apply")
    ->Apply(samplesAndEchoes);
BENCHMARK(apply<FittingGaussViaDecomposition<unsigned short, ZeroCrossing>>)
    ->Name("FittingGaussViaDecomposition/apply")
    ->Apply(samplesAndEchoes);

}  // namespace
}  // namespace FullWaveform::Bench
