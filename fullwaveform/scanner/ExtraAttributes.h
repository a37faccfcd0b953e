#pragma once

#include <cstdint>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Constants of a scanner model that are not in the data. The derived class sets the initial values.
class FULLWAVEFORM_EXPORT ExtraAttributes {
 public:
  double bin_shift;                 ///< shift of the sample bins, samples
  std::uint32_t scan_kind;          ///< 1 = radial scan pattern, 2 = line-wise
  std::uint32_t afterpulse_offset;  ///< samples from the strongest sample to the expected after-pulse
  std::uint32_t afterpulse_width;   ///< half-width of the after-pulse window, samples

  /// Sets all four for a known model (exactly "VQ-880-G" or "VQ-840-GL"); others change none of them.
  void setExtraAttributes(std::string const& scannerType);

  [[nodiscard]] bool isRadial() const { return scan_kind == 1; }
  [[nodiscard]] bool isLineWise() const { return scan_kind == 2; }
};

}  // namespace FullWaveform
