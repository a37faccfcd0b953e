#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "support/Blocks.h"

namespace FullWaveform::Bench {

using Testing::Block;
using Testing::Samples;

inline constexpr int noise = 20;                // counts, above the floor of every record here
inline constexpr std::size_t recordCount = 64;  // different records in turn, so that no branch is learnt

/// Scanner of 1 ns samples with a system wave, the one that the records below were made with.
ScannerDevice scanner();

/// A record with echoes of different heights (40 to 1500 counts) spread evenly over it, from its first
/// samples to its last, on a floor of 10 counts with a little noise.
///
/// @param samples  length; at least 15
/// @param echoes   at least 1
/// @param number   another one for another record of the kind; equal numbers give equal records
Samples recordOf(std::size_t samples, std::size_t echoes, std::uint32_t number);

/// Records and their analysed waveforms, as a method's `apply` takes them.
struct Waveforms {
  Waveforms(std::size_t samples, std::size_t echoes);

  std::vector<Samples> records;
  std::vector<WavePtr> waves;
};

/// The records as a block: two to a shot, the second of the low-power channel.
Block blockOf(std::size_t samples, std::size_t echoes);

/// A method's `apply` on waveform after waveform; what a call leaves in the peak list is cleared behind it.
template <class Method>
void applyToEach(Method& method, Waveforms const& waveforms) {
  for (std::size_t i = 0; i < waveforms.records.size(); ++i) {
    benchmark::DoNotOptimize(method.apply(waveforms.records[i].data(), waveforms.waves[i]));
    waveforms.waves[i]->peaks.clear();
  }
}

/// The sizes that every method is measured at: samples of the record, echoes in it.
inline void samplesAndEchoes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"samples", "echoes"})->ArgsProduct({{40, 80, 160, 400}, {1, 2, 3, 6}});
}

}  // namespace FullWaveform::Bench
