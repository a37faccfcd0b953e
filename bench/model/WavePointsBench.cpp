#include <fullwaveform/model/WavePoints.h>

#include <cstddef>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Segmentation.h>

namespace FullWaveform::Bench {
namespace {

/// Runs `work` for every waveform of the given length and number of echoes.
template <class Work>
void forEachWaveform(benchmark::State& state, Work const& work) {
  Waveforms const waveforms(static_cast<std::size_t>(state.range(0)),
                            static_cast<std::size_t>(state.range(1)));
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    for (Samples const& samples : waveforms.samples) {
      work(samples);
    }
  }
}

void analyse(benchmark::State& state) {
  ScannerDevice const device = scanner();
  forEachWaveform(state, [&](Samples const& samples) {
    WavePoints<unsigned short> const wave(samples.data(), 1, 0.0, 0.0, static_cast<int>(samples.size()), -1,
                                          device);
    benchmark::DoNotOptimize(wave.maxAmplitude);
  });
}
BENCHMARK(analyse)->Name("WavePoints/construct")->Apply(samplesAndEchoes);

void estimate(benchmark::State& state) {
  forEachWaveform(state, [](Samples const& samples) {
    benchmark::DoNotOptimize(estimateNoise(std::span<unsigned short const>(samples)));
  });
}
BENCHMARK(estimate)->Name("NoiseEstimate")->Apply(samplesAndEchoes);

void segment(benchmark::State& state) {
  forEachWaveform(state, [](Samples const& samples) {
    benchmark::DoNotOptimize(segmentSignal(std::span<unsigned short const>(samples), noise).max);
  });
}
BENCHMARK(segment)->Name("Segmentation")->Apply(samplesAndEchoes);

}  // namespace
}  // namespace FullWaveform::Bench
