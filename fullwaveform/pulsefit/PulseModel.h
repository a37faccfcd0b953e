#pragma once

#include <string>
#include <vector>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// What a fit must know of the scanner: the shape of a returned pulse, the noise, and how pulses vary.
///
/// Lengths and times are in samples, levels in counts. A pulse of variance v is the pulse convolved with a
/// Gaussian of this variance (samples squared); a negative v narrows it.
struct PulseModel {
  std::vector<double> pulse;      ///< values at equidistant lags; maximum 1 at lag 0, close to 0 at both ends
  double firstLag = 0.0;          ///< lag of the first value, negative
  double lagStep = 0.0625;        ///< between two values
  double baseline = 0.0;          ///< median level without light
  double baselineSpread = 0.0;    ///< standard deviation of the level from waveform to waveform
  double noiseRms = 1.0;          ///< of a single sample
  double noiseCorrelation = 1.0;  ///< noise seen by a matched filter, relative to that of white noise
  double scatter = 0.0;           ///< rms deviation of a pulse from the model, relative to its amplitude
  double varianceSpread = 0.05;   ///< standard deviation of v of echoes of flat surfaces
  double widening = 0.05;         ///< mean v that slopes add, an exponential distribution

  /// Empty, or what is wrong with the model.
  [[nodiscard]] FULLWAVEFORM_EXPORT std::string error() const;
};

}  // namespace FullWaveform
