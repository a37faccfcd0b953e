#include <fullwaveform/model/WavePoints.h>

#include <cstddef>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Segmentation.h>

namespace FullWaveform::Bench {
namespace {

/// Runs something on every record of a kind.
template <class Work>
void onRecords(benchmark::State& state, Work const& work) {
  Waveforms const waveforms(static_cast<std::size_t>(state.range(0)),
                            static_cast<std::size_t>(state.range(1)));
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    for (Samples const& record : waveforms.samples) {
      work(record);
    }
  }
}

void analyse(benchmark::State& state) {
  ScannerDevice const device = scanner();
  onRecords(state, [&](Samples const& record) {
    WavePoints<unsigned short> const wave(record.data(), 1, 0.0, 0.0, static_cast<int>(record.size()), -1,
                                          device);
    benchmark::DoNotOptimize(wave.maxAmplitude);
  });
}
BENCHMARK(analyse)->Name("WavePoints/construct")->Apply(samplesAndEchoes);

void estimate(benchmark::State& state) {
  onRecords(state, [](Samples const& record) {
    benchmark::DoNotOptimize(estimateNoise(std::span<unsigned short const>(record)));
  });
}
BENCHMARK(estimate)->Name("NoiseEstimate")->Apply(samplesAndEchoes);

void segment(benchmark::State& state) {
  onRecords(state, [](Samples const& record) {
    benchmark::DoNotOptimize(segmentSignal(std::span<unsigned short const>(record), noise).max);
  });
}
BENCHMARK(segment)->Name("Segmentation")->Apply(samplesAndEchoes);

}  // namespace
}  // namespace FullWaveform::Bench
