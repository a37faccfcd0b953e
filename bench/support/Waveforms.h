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

inline constexpr int noise = 20;                  // counts, above the baseline of every waveform here
inline constexpr std::size_t waveformCount = 64;  // different waveforms, so that branches are not predictable

/// Scanner of 1 ns samples with a system wave, the one that the waveforms below were made with.
ScannerDevice scanner();

inline constexpr double baseline = 10.0;  // counts
inline constexpr double noiseRms = 1.19;  // counts: uniform noise of +-2, rounded

/// Shapes of the pulse: skewed and ringing as the scanner's, or a Gaussian 4 samples wide at half maximum.
enum class PulseShape : std::uint8_t { Skewed = 0, Gaussian = 1 };

/// Height of the pulse, at most near 1, `t` samples after its start.
double pulse(PulseShape shape, double t);

/// A waveform with echoes of different heights (40 to 1500 counts) spread evenly over it, from its first
/// samples to its last, on a baseline of 10 counts with little noise.
///
/// @param samples  length; at least 15
/// @param number   seed; equal numbers give equal waveforms
Samples makeWaveform(std::size_t samples, std::size_t echoes, std::uint32_t number,
                     PulseShape shape = PulseShape::Skewed);

/// Samples and analysed waveforms, the arguments of a method's `apply`.
struct Waveforms {
  Waveforms(std::size_t length, std::size_t echoes, PulseShape shape = PulseShape::Skewed);

  std::vector<Samples> samples;
  std::vector<WavePtr> waves;
};

/// The waveforms as a block: two per shot, the second in the low-power channel.
Block blockOf(std::size_t samples, std::size_t echoes);

/// Calls a method's `apply` for every waveform and clears the peak list after each call.
template <class Method>
void applyToEach(Method& method, Waveforms const& waveforms) {
  for (std::size_t i = 0; i < waveforms.samples.size(); ++i) {
    benchmark::DoNotOptimize(method.apply(waveforms.samples[i].data(), waveforms.waves[i]));
    waveforms.waves[i]->peaks.clear();
  }
}

/// The sizes at which every method is measured: samples per waveform, echoes per waveform.
inline void samplesAndEchoes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"samples", "echoes"})->ArgsProduct({{40, 80, 160, 400}, {1, 2, 3, 6}});
}

}  // namespace FullWaveform::Bench
