#include <fullwaveform/driver/FWFModus.h>

namespace FullWaveform {

std::string getNameOfModus(FWFModus modus) {
  switch (modus) {
    case FWFModus::ThreePoint:
      return " Fitting gauss curve (linear)";
    case FWFModus::Decomposition:
      return " Gaussian Decomposition (non-linear)";
    case FWFModus::Deconvolution:
      return " Deconvolution via Richardson & Lucy";
    case FWFModus::Hybrid:
      return " FWF_Hybrid";
  }
  return "";
}

}  // namespace FullWaveform
