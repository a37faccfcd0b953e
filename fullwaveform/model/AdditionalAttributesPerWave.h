#pragma once

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Attributes of the shot that a waveform belongs to, as given by the caller.
class AdditionalAttributesPerWave {
 public:
  bool isLowPower = false;  ///< low-power channel
  double shotTime = 0.0;    ///< s
  double sblTime = 0.0;     ///< s
  float damping = 0.0F;     ///< of the receiver channel
};

}  // namespace FullWaveform
