#include <fullwaveform/deconvolution/RL_Planes.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/BareTransforms.h>
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
  applyToEach(planes, waveforms);  // working memory grows
  PerWaveform const counters(state, waveforms.samples.size());
  for (auto iteration : state) {
    applyToEach(planes, waveforms);
  }
}
BENCHMARK(applyPlanes)->Name("RL_Planes/apply")->Apply(samplesAndEchoes);

/// A ladder for the longest waveform of a scan.
void buildPlanes(benchmark::State& state) {
  for (auto iteration : state) {
    Planes const planes(scanner(), static_cast<unsigned int>(state.range(0)));
    benchmark::DoNotOptimize(&planes);
  }
}
BENCHMARK(buildPlanes)->Name("RL_Planes/build")->Arg(100)->Arg(400)->Arg(2500)->Unit(benchmark::kMillisecond);

/// Waveforms whose range is nearly the whole record, as one plane takes them, and what they cost in three
/// ways. The three are timed in turn, so that whatever else the machine does meets them alike.
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
  Stopwatch ours;
  Stopwatch transforms;
  Stopwatch plainly;
  for (auto iteration : state) {
    ours.time([&] { applyToEach(planes, waveforms); });
    transforms.time([&] {
      for (std::size_t i = 0; i < waveforms.waves.size(); ++i) {
        // Two convolutions to an iteration, each a transform there and one back.
        bare[planes.getIdx(static_cast<int>(waveforms.waves[i]->lengthCropped))].execute(2 * iterations[i]);
      }
    });
    plainly.time([&] {
      for (std::size_t i = 0; i < waveforms.waves.size(); ++i) {
        auto const& wave = *waveforms.waves[i];
        plain[planes.getIdx(static_cast<int>(wave.lengthCropped))].echoes(waveforms.samples[i].data(), wave);
      }
    });
  }
  double const each = 1e6 / static_cast<double>(waveforms.waves.size());
  state.counters["us/waveform"] = ours.fastest() * each;
  state.counters["bare_us"] = transforms.fastest() * each;
  state.counters["apply/bare"] = ours.fastest() / transforms.fastest();
  state.counters["plain/apply"] = plainly.fastest() / ours.fastest();
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
