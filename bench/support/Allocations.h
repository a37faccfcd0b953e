#pragma once

#include <cstddef>
#include <cstdint>

#include <benchmark/benchmark.h>

namespace FullWaveform::Bench {

/// Heap allocations of this program with operator new; the buffers of FFTW are not included.
struct Allocations {
  std::size_t count = 0;
  std::size_t bytes = 0;

  static Allocations soFar() noexcept;
};

/// Counters of a benchmark: waveforms per second, allocations and bytes per waveform. Create it just before
/// the timed loop; its destructor sets the counters.
class PerWaveform {
 public:
  /// @param waveforms  per iteration
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
