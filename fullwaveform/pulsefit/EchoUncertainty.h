#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <span>

namespace FullWaveform {

/// A waveform in which echoes were found.
struct FittedSamples {
  std::span<unsigned short const> samples;  ///< counts
  /// Counts; the positions were fitted to the samples above the threshold and those next to them.
  double threshold = -std::numeric_limits<double>::infinity();
  /// Counts; samples from here on are clipped and say nothing about the position. Height and width of an echo
  /// with such samples are not determined.
  double limit = std::numeric_limits<double>::infinity();

  /// Whether some of these samples are clipped.
  [[nodiscard]] bool isClipped(std::size_t first, std::size_t count) const {
    std::span<unsigned short const> const part = samples.subspan(first, count);
    return std::any_of(part.begin(), part.end(), [this](unsigned short sample) { return sample >= limit; });
  }
};

/// Largest distance in samples at which noise may be correlated.
inline constexpr std::size_t maxNoiseLag = 4;

/// Noise of the samples of a waveform.
struct SampleNoise {
  /// Covariance of two samples that are 0, 1, ... apart, counts squared; at most `maxNoiseLag` + 1 values.
  std::span<double const> covariance;
  /// Standard deviation of the baseline from which heights count, in counts. NaN: the baseline is the mean of
  /// those samples of the waveform that belong to no echo.
  double baselineDeviation = std::numeric_limits<double>::quiet_NaN();

  /// Variance of the baseline of a waveform with so many samples without an echo.
  [[nodiscard]] double baselineVariance(std::size_t quietSamples) const;
};

/// Standard deviations of the values of an echo; NaN if they are not determined.
struct EchoUncertainty {
  double position = std::numeric_limits<double>::quiet_NaN();   ///< samples
  double amplitude = std::numeric_limits<double>::quiet_NaN();  ///< counts
  double fwhm = std::numeric_limits<double>::quiet_NaN();       ///< full width at half maximum, samples
};

}  // namespace FullWaveform
