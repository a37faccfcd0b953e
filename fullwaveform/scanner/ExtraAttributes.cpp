#include <fullwaveform/scanner/ExtraAttributes.h>

namespace FullWaveform {

void ExtraAttributes::setExtraAttributes(std::string const& scannerType) {
  if (scannerType == "VQ-880-G" || scannerType == "VQ-840-GL") {
    bin_shift = 0.65;
    scan_kind = 1;
    afterpulse_offset = 5;
    afterpulse_width = 2;
  }
}

}  // namespace FullWaveform
