#include <fullwaveform/online/OnlineEvaluation.h>

#include <cstddef>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>
#include <bench/support/Waveforms.h>

namespace FullWaveform::Bench {
namespace {

/// Shots in ascending time with the given number of echoes each, farthest first. Counted per shot.
void evaluate(benchmark::State& state) {
  constexpr std::size_t shots = 1000;
  auto const echoes = static_cast<std::size_t>(state.range(0));
  std::vector<double> shotTimes;
  std::vector<double> ranges;
  for (std::size_t i = 0; i < shots * echoes; ++i) {
    shotTimes.push_back(1e-5 * static_cast<double>(i / echoes));
    ranges.push_back(100.0 + static_cast<double>(echoes - i % echoes));
  }
  std::vector<float> const amplitudes(ranges.size(), 10.0F);
  std::vector<unsigned char> const flags(ranges.size(), 1);
  ScannerDevice device = scanner();
  device.group_velocity = 299700000.0;
  OnlineEvaluation<unsigned short> evaluation(device);
  PerWaveform const counters(state, shots);
  for (auto iteration : state) {
    benchmark::DoNotOptimize(
        evaluation
            .apply(Kestra::MultiArray<1, double>(shotTimes), Kestra::MultiArray<1, double>(ranges),
                   Kestra::MultiArray<1, float>(amplitudes), Kestra::MultiArray<1, unsigned char>(flags),
                   Kestra::MultiArray<1, float>(amplitudes))
            .size());
  }
}
BENCHMARK(evaluate)->Name("OnlineEvaluation/apply")->ArgName("echoes")->Arg(1)->Arg(2)->Arg(3)->Arg(6);

}  // namespace
}  // namespace FullWaveform::Bench
