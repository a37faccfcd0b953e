#pragma once

#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// The signal whose maxima `RL_Planes` takes for the echoes of a waveform.
struct DeconvolvedSignal {
  std::vector<double> values;  ///< counts, not yet whole
  double first = 0.0;          ///< position that an echo at the first value gets, samples
  double step = 1.0;           ///< from value to value, samples
};

/// Deconvolves one waveform to be looked at; everything is planned anew, which is slow.
///
/// @param samples  the record that the waveform was built from, `wave.length` values in counts
/// @param wave     its range and noise count, its echoes do not
/// @param device   the scanner with its exponential sums
/// @return without values when the waveform has no signal of at least two samples
/// @throws std::invalid_argument when the scanner has no system wave
FULLWAVEFORM_EXPORT DeconvolvedSignal deconvolvedSignal(std::span<unsigned short const> samples,
                                                        WavePoints<unsigned short> const& wave,
                                                        ScannerDevice const& device);

}  // namespace FullWaveform
