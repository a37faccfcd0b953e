#pragma once

#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "support/TestWaveforms.h"

namespace FullWaveform::Testing {

inline constexpr unsigned short floorLevel = 20;  // counts

/// The pulse of the skewed scanner at t samples after its start, largest value 1 (at 2 atan(2) = 2.21430 of
/// its phase, that is 4.42859 samples).
inline double pulse(double t) {
  double const largest = std::exp(-0.25 * 4.42859) * (1.0 - std::cos(0.5 * 4.42859));
  return t < 0.0 ? 0.0 : std::exp(-0.25 * t) * (1.0 - std::cos(0.5 * t)) / largest;
}

inline Samples recordWithEchoes(std::size_t length,
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

inline WavePtr waveOf(Samples const& samples, ScannerDevice const& scanner, int noise = floorLevel) {
  return WavePtr(new WavePoints<unsigned short>(samples.data(), 0, 0.0, 0.0, static_cast<int>(samples.size()),
                                                noise, scanner));
}

/// Where an echo lands whose pulse starts at `start`: the kernel's middle, place 27 of 56 steps, behind it,
/// less half the up-sampling factor. 5.4 - 2.5 samples.
inline double positionOf(double start) {
  return start + 2.9;
}

/// Echoes are found on a grid of a fifth of a sample; they may lie one place beside their own, not two.
inline constexpr double gridSamples = 0.3;

}  // namespace FullWaveform::Testing
