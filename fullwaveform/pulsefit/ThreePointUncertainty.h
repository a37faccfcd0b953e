#pragma once

#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/pulsefit/EchoUncertainty.h>

namespace FullWaveform {

/// Echoes of the three-point fit of one waveform, equally many values of each, in any order.
struct ThreePointEchoes {
  std::span<double const> positions;  ///< samples
  std::span<double const> sigmas;     ///< standard deviations, samples
};

/// Standard deviations of position, height and width of echoes of the three-point fit.
///
/// The fit uses three samples only, so its errors exceed the Cramer-Rao bound. They follow from those of the
/// logarithms of the samples, of which all three values are functions.
///
/// @param waveform  the samples as they were fitted, with their baseline
/// @param result    one per echo; NaN where one of its samples is clipped, or where the samples around it are
///                  not those of a three-point fit
FULLWAVEFORM_EXPORT void threePointUncertainties(FittedSamples const& waveform, SampleNoise const& noise,
                                                 ThreePointEchoes const& echoes,
                                                 std::span<EchoUncertainty> result);

}  // namespace FullWaveform
