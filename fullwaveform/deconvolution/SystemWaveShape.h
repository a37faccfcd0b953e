#pragma once

#include <cstddef>
#include <vector>

#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// The system wave of a scanner, its maximum 1, and its slope at any place between samples.
class SystemWaveShape {
 public:
  struct Value {
    double wave;
    double slope;  ///< per sample
  };

  /// @throws std::invalid_argument when the scanner has no system wave
  explicit SystemWaveShape(ScannerDevice const& device);

  /// The system wave of an echo at the samples of a waveform.
  ///
  /// @param position  of the echo as `RL_Planes` gives it, finite
  /// @param size      samples of the waveform
  /// @param values    receives the values at the samples that the system wave covers
  /// @return the first of these samples
  std::size_t cover(double position, std::size_t size, std::vector<Value>& values) const;

  /// Place of the maximum of the system wave of an echo, in samples.
  [[nodiscard]] double maximumOf(double position) const { return position - lag + maximumAt; }

 private:
  [[nodiscard]] Value valueAt(double sample) const;

  std::vector<Value> table;
  double lag = 0.0;        ///< position of an echo less that of the start of its system wave, samples
  double maximumAt = 0.0;  ///< of the system wave, samples after its start
};

}  // namespace FullWaveform
