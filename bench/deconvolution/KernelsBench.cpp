#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/InstructionSets.h>
#include <bench/support/Waveforms.h>

#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/IterationKernels.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

namespace FullWaveform::Bench {
namespace {

using Values = std::vector<double>;

constexpr std::uint32_t steps = 5;            // values per sample
constexpr std::size_t systemWaveLength = 56;  // values
constexpr double range = 900.0;               // counts

/// Arguments of a kernel: the values of an up-sampled signal, and factors near 1.
struct Signal {
  explicit Signal(benchmark::State const& state)
      : values(static_cast<std::size_t>(state.range(1)) * steps),
        factors(values.size()),
        result(values.size()) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i] = 1.0 + static_cast<double>(i % 17) / 17.0;
      factors[i] = 1.0 + 1e-9 * static_cast<double>(i % 13);
    }
  }

  Values values;
  Values factors;
  Values result;
};

/// Runs a kernel with the instruction set and signal length of the benchmark.
template <class Kernel>
void pass(benchmark::State& state, Kernel const& kernel) {
  InstructionSet const set = instructionSetOf(state);
  Signal signal(state);
  PerWaveform const counters(state, 1);
  for (auto iteration : state) {
    kernel(set, signal);
    benchmark::ClobberMemory();
  }
}

void setsAndSamples(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"set", "samples"})->ArgsProduct({{0, 1}, {40, 80, 160, 400}});
}

void maximum(benchmark::State& state) {
  pass(state, [](InstructionSet set, Signal const& signal) {
    benchmark::DoNotOptimize(IterationKernels::maximum(set, signal.values));
  });
}
BENCHMARK(maximum)->Name("IterationKernels/maximum")->Apply(setsAndSamples);

void subtractNoise(benchmark::State& state) {
  // Subtracts 0, so that the values stay the same.
  pass(state, [](InstructionSet set, Signal& signal) {
    IterationKernels::subtractNoise(set, signal.values, 0.0, 1.0);
  });
}
BENCHMARK(subtractNoise)->Name("IterationKernels/subtractNoise")->Apply(setsAndSamples);

void multiply(benchmark::State& state) {
  pass(state, [](InstructionSet set, Signal& signal) {
    std::size_t const bins = signal.values.size() / 2;
    // Multiplies by i, so that the magnitude stays the same.
    for (std::size_t k = 0; k < bins; ++k) {
      signal.factors[2 * k] = 0.0;
      signal.factors[2 * k + 1] = 1.0;
    }
    IterationKernels::multiply(set, {reinterpret_cast<double (*)[2]>(signal.values.data()), bins},
                               reinterpret_cast<double const(*)[2]>(signal.factors.data()));
  });
}
BENCHMARK(multiply)->Name("IterationKernels/multiply")->Apply(setsAndSamples);

void divide(benchmark::State& state) {
  pass(state, [](InstructionSet set, Signal& signal) {
    IterationKernels::divide(set, signal.values, signal.factors.data(), 0.5, signal.result.data());
  });
}
BENCHMARK(divide)->Name("IterationKernels/divide")->Apply(setsAndSamples);

void correct(benchmark::State& state) {
  pass(state, [](InstructionSet set, Signal& signal) {
    signal.values.assign(signal.values.size(), 1.0);  // the product would grow with every iteration
    benchmark::DoNotOptimize(
        IterationKernels::correct(set, signal.values, signal.factors.data(), 1.0, signal.result.data()));
  });
}
BENCHMARK(correct)->Name("IterationKernels/correct")->Apply(setsAndSamples);

void toCounts(benchmark::State& state) {
  std::vector<std::uint16_t> counts(static_cast<std::size_t>(state.range(1)) * steps);
  pass(state, [&counts](InstructionSet set, Signal const& signal) {
    IterationKernels::toCounts(set, signal.values, range, 2.0, noise, counts.data());
  });
}
BENCHMARK(toCounts)->Name("IterationKernels/toCounts")->Apply(setsAndSamples);

/// Transforms of a pulse, long enough for a signal of `values` values.
ConvolutionWorkspace workspaceFor(std::size_t values) {
  Values pulse(systemWaveLength);
  for (std::size_t i = 0; i < pulse.size(); ++i) {
    double const t = static_cast<double>(i) / steps;
    pulse[i] = std::exp(-0.25 * t) * (1.0 - std::cos(0.5 * t));
  }
  auto const minLength = static_cast<std::uint32_t>(minTransformLength(values, systemWaveLength));
  std::uint32_t length = 64;
  while (length < minLength) {
    length *= 2;
  }
  return {pulse, length};
}

/// Forward transform, product of spectra and inverse transform, with the next power of two as length.
void convolveInput(benchmark::State& state) {
  ConvolutionWorkspace workspace = workspaceFor(static_cast<std::size_t>(state.range(0)) * steps);
  workspace.load(Values(workspace.fftLength(), 1.0));
  PerWaveform const counters(state, 1);
  for (auto iteration : state) {
    benchmark::DoNotOptimize(workspace.convolveInput(workspace.psfSpectrum()).data());
  }
}
BENCHMARK(convolveInput)
    ->Name("ConvolutionWorkspace/convolveInput")
    ->ArgName("samples")
    ->Arg(40)
    ->Arg(80)
    ->Arg(160)
    ->Arg(400);

void prepareSignals(benchmark::State& state) {
  Waveforms const waveforms(static_cast<std::size_t>(state.range(0)),
                            static_cast<std::size_t>(state.range(1)));
  Values observed((waveforms.samples[0].size() - 1) * steps);
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    for (Samples const& samples : waveforms.samples) {
      benchmark::DoNotOptimize(prepareObserved(samples, steps, noise, widestInstructionSet(), observed));
    }
  }
}
BENCHMARK(prepareSignals)->Name("RichardsonLucyIteration/prepareObserved")->Apply(samplesAndEchoes);

void iterate(benchmark::State& state) {
  Waveforms const waveforms(static_cast<std::size_t>(state.range(0)),
                            static_cast<std::size_t>(state.range(1)));
  std::vector<Values> signals;
  for (Samples const& samples : waveforms.samples) {
    prepareObserved(samples, steps, noise, widestInstructionSet(),
                    signals.emplace_back((samples.size() - 1) * steps));
  }
  ConvolutionWorkspace workspace = workspaceFor(signals[0].size());
  Values estimate(signals[0].size());
  double iterations = 0.0;
  {
    PerWaveform const counters(state, signals.size());
    for (auto iteration : state) {
      for (Values const& signal : signals) {
        estimate.assign(signal.begin(), signal.end());
        iterations += deconvolve(signal, workspace, kernelCentre(systemWaveLength), estimate);
      }
    }
  }
  state.counters["iterations/waveform"] =
      iterations / (static_cast<double>(state.iterations()) * static_cast<double>(signals.size()));
}
BENCHMARK(iterate)->Name("RichardsonLucyIteration/deconvolve")->Apply(samplesAndEchoes);

/// All steps between samples and counts, with one instruction set.
void deconvolveWithInstructionSet(benchmark::State& state) {
  InstructionSet const set = instructionSetOf(state);
  Waveforms const waveforms(80, 3);
  Values observed((waveforms.samples[0].size() - 1) * steps);
  Values estimate(observed.size());
  Samples counts(observed.size());
  ConvolutionWorkspace workspace = workspaceFor(observed.size());
  workspace.instructionSet = set;
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    for (Samples const& samples : waveforms.samples) {
      double const maximum = prepareObserved(samples, steps, noise, set, observed);
      estimate = observed;
      deconvolve(observed, workspace, kernelCentre(systemWaveLength), estimate);
      scaleToCounts(maximum, noise, set, estimate, counts);
    }
  }
}
BENCHMARK(deconvolveWithInstructionSet)
    ->Name("RichardsonLucyIteration/instructionSet")
    ->ArgName("set")
    ->DenseRange(0, 1);

}  // namespace
}  // namespace FullWaveform::Bench
