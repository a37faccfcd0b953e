#pragma once

#include <cstdint>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// What is known per scanner model instead of being read from the data. The deriving class sets start values.
class FULLWAVEFORM_EXPORT ExtraAttributes {
 public:
  double bin_shift;                 ///< shift of the sample bins, samples
  std::uint32_t scan_kind;          ///< 1 = radial scan pattern, 2 = line by line
  std::uint32_t afterpulse_offset;  ///< samples from the strongest sample to the expected after-pulse
  std::uint32_t afterpulse_width;   ///< half-width of the after-pulse window, samples

  /// Sets all four for a known model ("VQ-880-G", "VQ-840-GL", the whole text); others change nothing.
  void setExtraAttributes(std::string const& scannerType);

  [[nodiscard]] bool isRadial() const { return scan_kind == 1; }
  [[nodiscard]] bool isLineWise() const { return scan_kind == 2; }
};

}  // namespace FullWaveform
