#include <fullwaveform/pulsefit/PulseFit.h>

#include <algorithm>
#include <cstddef>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Stopwatch.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>

namespace FullWaveform::Bench {
namespace {

using Decomposition = FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;

/// The pulse from its start to where it has rung out, sampled at sixteenths of a sampling interval.
PulseModel modelOf(PulseShape shape) {
  constexpr int steps = 40 * 16;
  PulseModel model;
  for (int i = 0; i <= steps; ++i) {
    model.pulse.push_back(pulse(shape, (i - 32) * model.lagStep));
  }
  auto const maximum = std::max_element(model.pulse.begin(), model.pulse.end());
  model.firstLag = -model.lagStep * static_cast<double>(maximum - model.pulse.begin());
  model.baseline = baseline;
  model.noiseRms = noiseRms;
  model.scatter = 0.005;
  return model;
}

PulseShape shapeOf(benchmark::State const& state) {
  return static_cast<PulseShape>(state.range(2));
}

Waveforms waveformsOf(benchmark::State const& state) {
  return {static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)), shapeOf(state)};
}

/// @return number of echoes found
std::size_t fitEach(PulseFit& fit, Waveforms const& waveforms) {
  std::size_t echoes = 0;
  for (Samples const& samples : waveforms.samples) {
    echoes += fit.apply(samples).echoes.size();
  }
  return echoes;
}

/// Samples, echoes (0: noise only) and shape of the pulse.
void scenes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"samples", "echoes", "gaussian"})
      ->ArgsProduct({{40, 80, 160, 400}, {0, 1, 2, 5}, {0, 1}});
}

void apply(benchmark::State& state) {
  Waveforms const waveforms = waveformsOf(state);
  PulseFit fit(modelOf(shapeOf(state)));
  double const found = static_cast<double>(fitEach(fit, waveforms));  // working memory grows
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    benchmark::DoNotOptimize(fitEach(fit, waveforms));
  }
  state.counters["found/waveform"] = found / static_cast<double>(waveforms.samples.size());
}
BENCHMARK(apply)->Name("PulseFit/apply")->Apply(scenes);

void decomposition(benchmark::State& state) {
  Waveforms const waveforms = waveformsOf(state);
  Decomposition method;
  applyToEach(method, waveforms);
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    applyToEach(method, waveforms);
  }
}
BENCHMARK(decomposition)->Name("FittingGaussViaDecomposition/apply")->Apply(scenes);

/// Both methods in turn on the same waveforms, so that other load of the machine affects them equally.
void compare(benchmark::State& state) {
  Waveforms const waveforms = waveformsOf(state);
  PulseFit fit(modelOf(shapeOf(state)));
  Decomposition method;
  Stopwatch ofFit;
  Stopwatch ofMethod;
  for (auto iteration : state) {
    ofFit.time([&] { benchmark::DoNotOptimize(fitEach(fit, waveforms)); });
    ofMethod.time([&] { applyToEach(method, waveforms); });
  }
  double const perWaveform = 1e6 / static_cast<double>(waveforms.samples.size());
  state.counters["us"] = ofFit.fastest() * perWaveform;
  state.counters["usDecomposition"] = ofMethod.fastest() * perWaveform;
  state.counters["timesDecomposition"] = ofFit.fastest() / ofMethod.fastest();
}
BENCHMARK(compare)->Name("PulseFit/compare")->Apply(scenes)->Iterations(100);

}  // namespace
}  // namespace FullWaveform::Bench
