#pragma once

#include <cstddef>
#include <cstdint>

#include <benchmark/benchmark.h>

namespace FullWaveform::Bench {

/// What this program has taken from the heap with operator new so far; the buffers of FFTW, which are made
/// with the plans, are not among it.
struct Allocations {
  std::size_t count = 0;
  std::size_t bytes = 0;

  static Allocations soFar() noexcept;
};

/// Counters of a benchmark over waveforms: waveforms per second, allocations and bytes per waveform. Made
/// just before the timed loop; tells when the benchmark function ends.
class PerWaveform {
 public:
  /// @param waveforms  in each iteration
  PerWaveform(benchmark::State& state, std::size_t waveforms);
  PerWaveform(PerWaveform const&) = delete;
  PerWaveform& operator=(PerWaveform const&) = delete;
  ~PerWaveform();

 private:
  benchmark::State& state;
  std::size_t waveforms;
  Allocations before;
};

}  // namespace FullWaveform::Bench
