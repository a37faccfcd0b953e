#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include <fullwaveform/pulsefit/PulseModel.h>

namespace FullWaveform::Testing {

/// Standard deviation of the Gaussian test pulse in samples, a width at half maximum of 4.
inline double const pulseWidth = 4.0 / std::sqrt(8.0 * std::log(2.0));

inline double gaussian(double x, double width = pulseWidth) {
  return std::exp(-0.5 * x * x / (width * width));
}

/// Model of the Gaussian pulse on a baseline of 20 counts with a noise of 2 counts rms.
inline PulseModel gaussianModel() {
  PulseModel model;
  model.firstLag = -12.0;
  for (int i = 0; i <= 24 * 16; ++i) {
    model.pulse.push_back(gaussian(model.firstLag + i / 16.0));
  }
  model.baseline = 20.0;
  model.noiseRms = 2.0;
  return model;
}

struct TrueEcho {
  double position;
  double amplitude;
  double width = pulseWidth;  ///< samples
};

using Counts = std::vector<unsigned short>;

/// Gaussian echoes on a baseline of 20 counts, rounded.
inline Counts waveform(std::size_t samples, std::vector<TrueEcho> const& echoes, double limit = 65535.0) {
  Counts counts;
  for (std::size_t i = 0; i < samples; ++i) {
    double value = 20.0;
    for (TrueEcho const& echo : echoes) {
      value += echo.amplitude * gaussian(static_cast<double>(i) - echo.position, echo.width);
    }
    counts.push_back(static_cast<unsigned short>(std::lround(std::clamp(value, 0.0, limit))));
  }
  return counts;
}

/// The same with normally distributed noise of 2 counts rms.
inline Counts noisyWaveform(std::size_t samples, std::vector<TrueEcho> const& echoes, std::mt19937& random) {
  std::normal_distribution<double> noise(0.0, 2.0);
  Counts counts;
  for (std::size_t i = 0; i < samples; ++i) {
    double value = 20.0 + noise(random);
    for (TrueEcho const& echo : echoes) {
      value += echo.amplitude * gaussian(static_cast<double>(i) - echo.position, echo.width);
    }
    counts.push_back(static_cast<unsigned short>(std::lround(std::max(value, 0.0))));
  }
  return counts;
}

}  // namespace FullWaveform::Testing
