#pragma once

#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// The signal whose maxima `RL_Planes` returns as the echoes of a waveform.
struct DeconvolvedSignal {
  std::vector<double> values;  ///< counts, before they are truncated to integers
  double first = 0.0;          ///< position of the first value, samples
  double step = 1.0;           ///< distance between two values, samples
};

/// Deconvolves one waveform for display. Slow: plans its transforms in every call.
///
/// @param samples  the samples of the waveform, `wave.length` values in counts
/// @param wave     only its range and noise are used
/// @param device   the scanner with its exponential sums
/// @return the signal; empty when the waveform has no signal of at least two values
/// @throws std::invalid_argument when the scanner has no system wave
FULLWAVEFORM_EXPORT DeconvolvedSignal deconvolvedSignal(std::span<unsigned short const> samples,
                                                        WavePoints<unsigned short> const& wave,
                                                        ScannerDevice const& device);

}  // namespace FullWaveform
