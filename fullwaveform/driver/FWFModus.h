#pragma once

#include <cstdint>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Extraction method of the driver. With any other value, no method runs and waveforms get no echoes.
enum class FWFModus : std::uint32_t {
  ThreePoint = 0,     ///< Gauss curve through three samples
  Decomposition = 1,  ///< Gaussian decomposition
  Deconvolution = 2,  ///< Richardson-Lucy deconvolution on a ladder of planes
  Hybrid = 3          ///< decomposition or deconvolution, chosen per waveform
};

/// Display name of a mode, with a leading blank so that it can follow a label. Empty for other values.
FULLWAVEFORM_EXPORT std::string getNameOfModus(FWFModus modus);

}  // namespace FullWaveform
