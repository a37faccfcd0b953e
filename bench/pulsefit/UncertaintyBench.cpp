#include <cstddef>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Stopwatch.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/fitting/BaselineFit.h>
#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>
#include <fullwaveform/pulsefit/GaussUncertainty.h>

namespace FullWaveform::Bench {
namespace {

using Decomposition = FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;
using Values = std::vector<double>;

/// The echoes of one waveform, refined above the baseline.
struct Echoes {
  Values positions;
  Values heights;
  Values sigmas;
  Values positionSigmas;
  Values reaches;
  std::vector<EchoUncertainty> uncertainties;
};

/// Waveforms with Gaussian echoes, and the echoes that the decomposition finds in them.
struct Scene {
  explicit Scene(benchmark::State const& state)
      : waveforms(static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)),
                  PulseShape::Gaussian),
        covariance(static_cast<std::size_t>(state.range(2)) + 1) {
    covariance[0] = noiseRms * noiseRms;
    for (std::size_t i = 0; i < waveforms.samples.size(); ++i) {
      method.apply(waveforms.samples[i].data(), waveforms.waves[i]);
      found.push_back(refined(waveforms.samples[i], *waveforms.waves[i]));
      waveforms.waves[i]->peaks.clear();
    }
  }

  static Echoes refined(Samples const& samples, WavePoints<unsigned short> const& wave) {
    Echoes echoes;
    for (Peak const& peak : wave.peaks) {
      echoes.positions.push_back(peak.idx);
      echoes.heights.push_back(peak.amplitude + wave.noise - baseline);
      echoes.sigmas.push_back(peak.std);
      echoes.positionSigmas.push_back(peak.std);
      echoes.reaches.push_back(3.0 * peak.std);
    }
    BaselineFit().refine(samples, baseline,
                         {.positions = echoes.positions, .heights = echoes.heights, .sigmas = echoes.sigmas});
    echoes.uncertainties.resize(echoes.positions.size());
    return echoes;
  }

  void state() {
    for (std::size_t i = 0; i < found.size(); ++i) {
      Echoes& echoes = found[i];
      kernel.apply({.samples = waveforms.samples[i], .threshold = static_cast<double>(noise)},
                   {covariance, 1.0},
                   {echoes.positions, echoes.heights, echoes.sigmas, echoes.positionSigmas, echoes.reaches},
                   echoes.uncertainties);
      benchmark::DoNotOptimize(echoes.uncertainties.data());
    }
  }

  Waveforms waveforms;
  Values covariance;
  Decomposition method;
  GaussUncertainty kernel;
  std::vector<Echoes> found;
};

/// Samples, echoes, and distance in samples over which the noise is correlated.
void scenes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"samples", "echoes", "lag"})->ArgsProduct({{80, 400}, {1, 2, 5}, {0, 4}});
}

void apply(benchmark::State& state) {
  Scene scene(state);
  scene.state();  // working memory grows
  PerWaveform const counters(state, scene.found.size());
  for (auto iteration : state) {
    scene.state();
  }
}
BENCHMARK(apply)->Name("GaussUncertainty/apply")->Apply(scenes);

/// Both in turn on the same waveforms, so that other load of the machine affects them equally.
void compare(benchmark::State& state) {
  Scene scene(state);
  Stopwatch ofKernel;
  Stopwatch ofMethod;
  for (auto iteration : state) {
    ofKernel.time([&] { scene.state(); });
    ofMethod.time([&] { applyToEach(scene.method, scene.waveforms); });
  }
  double const perWaveform = 1e6 / static_cast<double>(scene.found.size());
  state.counters["us"] = ofKernel.fastest() * perWaveform;
  state.counters["usDecomposition"] = ofMethod.fastest() * perWaveform;
  state.counters["ofDecomposition"] = ofKernel.fastest() / ofMethod.fastest();
}
BENCHMARK(compare)->Name("GaussUncertainty/compare")->Apply(scenes)->Iterations(100);

}  // namespace
}  // namespace FullWaveform::Bench
