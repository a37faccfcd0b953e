#include <fullwaveform/deconvolution/RL_Planes.h>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

namespace FullWaveform::Bench {
namespace {

void applyPlanes(benchmark::State& state) {
  auto const samples = static_cast<std::size_t>(state.range(0));
  Waveforms const waveforms(samples, static_cast<std::size_t>(state.range(1)));
  RL_Planes<unsigned short, ZeroCrossing> planes(scanner(), static_cast<unsigned int>(samples));
  applyToEach(planes, waveforms);  // working memory grows
  PerWaveform const counters(state, waveforms.records.size());
  for (auto iteration : state) {
    applyToEach(planes, waveforms);
  }
}
BENCHMARK(applyPlanes)->Name("RL_Planes/apply")->Apply(samplesAndEchoes);

}  // namespace
}  // namespace FullWaveform::Bench
