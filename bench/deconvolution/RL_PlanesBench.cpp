#include <fullwaveform/deconvolution/RL_Planes.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/BareTransforms.h>
#include <bench/support/Stopwatch.h>
#include <bench/support/Waveforms.h>

#include "deconvolution/PlainRichardsonLucy.h"

namespace FullWaveform::Bench {
namespace {

using Testing::PlainRichardsonLucy;
using Planes = RL_Planes<unsigned short, ZeroCrossing>;

void applyPlanes(benchmark::State& state) {
  auto const samples = static_cast<std::size_t>(state.range(0));
  Waveforms const waveforms(samples, static_cast<std::size_t>(state.range(1)));
  Planes planes(scanner(), static_cast<unsigned int>(samples));
  applyToEach(planes, waveforms);  // grows the working memory
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    applyToEach(planes, waveforms);
  }
}
BENCHMARK(applyPlanes)->Name("RL_Planes/apply")->Apply(samplesAndEchoes);

/// A ladder for a maximum waveform length.
void buildPlanes(benchmark::State& state) {
  for (auto iteration : state) {
    Planes const planes(scanner(), static_cast<unsigned int>(state.range(0)));
    benchmark::DoNotOptimize(&planes);
  }
}
BENCHMARK(buildPlanes)->Name("RL_Planes/build")->Arg(100)->Arg(400)->Arg(2500)->Unit(benchmark::kMillisecond);

/// The method, its bare transforms and the plain implementation, for waveforms whose range is nearly their
/// whole length. The three are measured alternately, so that other load affects them equally.
void compareWithTransforms(benchmark::State& state) {
  auto const samples = static_cast<std::size_t>(state.range(0));
  ScannerDevice const device = scanner();
  Waveforms const waveforms(samples, 1 + samples / 20);
  Planes planes(device, static_cast<unsigned int>(samples));
  std::vector<PlainRichardsonLucy> plain;
  std::vector<BareTransforms> bare;
  for (auto const& plane : planes.planes) {
    plain.emplace_back(device, plane.upsampled_length / device.up_sampling + 1);
    bare.push_back(BareTransforms::fastestOfAtLeast(plane.fft_length));
  }
  std::vector<int> iterations;
  for (std::size_t i = 0; i < waveforms.waves.size(); ++i) {
    auto const& wave = *waveforms.waves[i];
    iterations.push_back(plain[planes.getIdx(static_cast<int>(wave.lengthCropped))]
                             .echoes(waveforms.samples[i].data(), wave)
                             .iterations);
  }
  Stopwatch method;
  Stopwatch transforms;
  Stopwatch reference;
  for (auto iteration : state) {
    method.time([&] { applyToEach(planes, waveforms); });
    transforms.time([&] {
      for (std::size_t i = 0; i < waveforms.waves.size(); ++i) {
        // Two convolutions per iteration, each with a forward and an inverse transform.
        bare[planes.getIdx(static_cast<int>(waveforms.waves[i]->lengthCropped))].execute(2 * iterations[i]);
      }
    });
    reference.time([&] {
      for (std::size_t i = 0; i < waveforms.waves.size(); ++i) {
        auto const& wave = *waveforms.waves[i];
        plain[planes.getIdx(static_cast<int>(wave.lengthCropped))].echoes(waveforms.samples[i].data(), wave);
      }
    });
  }
  double const each = 1e6 / static_cast<double>(waveforms.waves.size());
  state.counters["us/waveform"] = method.fastest() * each;
  state.counters["bare_us"] = transforms.fastest() * each;
  state.counters["apply/bare"] = method.fastest() / transforms.fastest();
  state.counters["plain/apply"] = reference.fastest() / method.fastest();
}
BENCHMARK(compareWithTransforms)
    ->Name("RL_Planes/compared")
    ->ArgName("samples")
    ->Arg(25)
    ->Arg(40)
    ->Arg(50)
    ->Arg(60)
    ->Arg(75)
    ->Arg(90)
    ->Arg(100)
    ->Arg(160)
    ->Arg(250)
    ->Arg(400)
    ->Iterations(60);

}  // namespace
}  // namespace FullWaveform::Bench
