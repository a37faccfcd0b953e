#pragma once

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Speed of light in air, m/s.
inline constexpr double speedOfLightInAir = 299708256.0;

/// Metres of range per second of two-way travel time.
inline constexpr double halfSpeedOfLightInAir = 149854128.0;

}  // namespace FullWaveform
