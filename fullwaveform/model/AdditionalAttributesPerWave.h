#pragma once

namespace FullWaveform {

/// What the caller knows about the shot of a waveform.
class AdditionalAttributesPerWave {
 public:
  bool isLowPower = false;  ///< the shot was fired in low-power mode
  double shotTime = 0.0;    ///< s
  double sblTime = 0.0;     ///< s
  float damping = 0.0F;     ///< of the receiver channel
};

}  // namespace FullWaveform
