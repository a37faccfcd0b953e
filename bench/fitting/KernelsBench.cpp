#include <cstddef>
#include <list>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/InstructionSets.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/fitting/ThreePointGauss.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/fitting/leastsquares/GaussianSum.h>
#include <fullwaveform/fitting/leastsquares/PivotedQr.h>

namespace FullWaveform::Bench {
namespace {

using Values = std::vector<double>;

void setsSamplesAndEchoes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"set", "samples", "echoes"})->ArgsProduct({{0, 1}, {40, 80, 160, 400}, {1, 2, 3, 6}});
}

/// A waveform and Gaussians spread evenly over it.
struct Fit {
  explicit Fit(benchmark::State& state) : sum(instructionSetOf(state)), qr(instructionSetOf(state)) {
    auto const samples = static_cast<std::size_t>(state.range(1));
    auto const echoes = static_cast<std::size_t>(state.range(2));
    double const distance = static_cast<double>(samples) / static_cast<double>(echoes);
    for (std::size_t echo = 0; echo < echoes; ++echo) {
      double const number = static_cast<double>(echo);
      parameters.insert(parameters.end(), {300.0 + 100.0 * number, distance * (number + 0.46), 2.4});
    }
    squares.resize(parameters.size());
    Values signal;
    for (unsigned short const sample : makeWaveform(samples, echoes, 1)) {
      signal.push_back(sample - static_cast<double>(noise));
    }
    sum.setSignal(signal, 0, parameters.size());
  }

  GaussianSum sum;
  PivotedQr qr;
  Values parameters;
  Values squares;
};

template <class Kernel>
void onFit(benchmark::State& state, Kernel const& kernel) {
  Fit fit(state);
  fit.sum.evaluate(fit.parameters);
  fit.sum.differentiate(fit.squares);
  fit.qr.factorise(fit.sum, fit.squares);  // working memory grows
  fit.sum.evaluate(fit.parameters);
  PerWaveform const counters(state, 1);
  for (auto iteration : state) {
    kernel(fit);
    benchmark::ClobberMemory();
  }
}

void evaluate(benchmark::State& state) {
  onFit(state, [](Fit& fit) { benchmark::DoNotOptimize(fit.sum.evaluate(fit.parameters)); });
}
BENCHMARK(evaluate)->Name("GaussianSum/evaluate")->Apply(setsSamplesAndEchoes);

void differentiate(benchmark::State& state) {
  onFit(state, [](Fit& fit) { fit.sum.differentiate(fit.squares); });
}
BENCHMARK(differentiate)->Name("GaussianSum/differentiate")->Apply(setsSamplesAndEchoes);

/// The reflections overwrite the columns, which are computed again each time: their own time is the
/// difference to the two above.
void linearise(benchmark::State& state) {
  onFit(state, [](Fit& fit) {
    fit.sum.evaluate(fit.parameters);
    fit.sum.differentiate(fit.squares);
    fit.qr.factorise(fit.sum, fit.squares);
  });
}
BENCHMARK(linearise)->Name("PivotedQr/evaluateDifferentiateReflect")->Apply(setsSamplesAndEchoes);

void findMaxima(benchmark::State& state) {
  Waveforms const waveforms(static_cast<std::size_t>(state.range(0)),
                            static_cast<std::size_t>(state.range(1)));
  ZeroCrossing finder;
  finder.minimumDifference = 2.0;
  std::list<Peak> peaks;
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    for (Samples const& record : waveforms.samples) {
      findRawPeaks(std::span<unsigned short const>(record), 0, static_cast<int>(record.size()) - 1, noise,
                   peaks, finder);
      benchmark::DoNotOptimize(peaks.size());
      peaks.clear();
    }
  }
}
BENCHMARK(findMaxima)->Name("ZeroCrossing/findRawPeaks")->Apply(samplesAndEchoes);

/// One peak of each waveform, at its largest sample.
void fitTriples(benchmark::State& state) {
  Waveforms const waveforms(80, 2);
  Peak peak(0.0, 0.0, 0.0, RAW, GOOD, 0.0, 0, 0.0F);
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    for (std::size_t i = 0; i < waveforms.samples.size(); ++i) {
      peak.idx = waveforms.waves[i]->idxOfMaxAmplitude;
      fitThreePointGauss(waveforms.samples[i], {}, peak);
      benchmark::DoNotOptimize(peak.amplitude);
    }
  }
}
BENCHMARK(fitTriples)->Name("ThreePointGauss/fit");

}  // namespace
}  // namespace FullWaveform::Bench
