#pragma once

#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "support/TestWaveforms.h"

namespace FullWaveform::Testing {

inline constexpr int pulseThreshold = 20;  // counts

/// The pulse of `skewedScanner` at t samples after its start, maximum 1: at a phase of 2 atan(2) = 2.21430,
/// that is 4.42859 samples.
inline double pulse(double t) {
  double const maximum = std::exp(-0.25 * 4.42859) * (1.0 - std::cos(0.5 * 4.42859));
  return t < 0.0 ? 0.0 : std::exp(-0.25 * t) * (1.0 - std::cos(0.5 * t)) / maximum;
}

/// A waveform with a baseline of 10 counts; every echo is given by the start of its pulse and its amplitude.
inline Samples waveformWithEchoes(std::size_t length,
                                  std::vector<std::pair<double, double>> const& startsAndCounts) {
  Samples samples(length);
  for (std::size_t i = 0; i < length; ++i) {
    double value = 10.0;
    for (auto const& [start, counts] : startsAndCounts) {
      value += counts * pulse(static_cast<double>(i) - start);
    }
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  return samples;
}

inline WavePtr waveOf(Samples const& samples, ScannerDevice const& scanner, int noise = pulseThreshold) {
  return WavePtr(new WavePoints<unsigned short>(samples.data(), 0, 0.0, 0.0, static_cast<int>(samples.size()),
                                                noise, scanner));
}

/// Position of an echo whose pulse starts at `start`: later by the centre of the kernel, value 27 of 56 or
/// 5.4 samples, and earlier by half the up-sampling factor, 2.5 samples.
inline double positionOf(double start) {
  return start + 2.9;
}

/// Echoes are found in steps of a fifth of a sample; a position may differ by one step, not by two.
inline constexpr double gridSamples = 0.3;

}  // namespace FullWaveform::Testing
