#include <fullwaveform/model/AfterPulse.h>

namespace FullWaveform {
namespace {

/// Echoes below this amplitude have no visible after-pulse, counts.
constexpr unsigned short minAfterPulseSource = 800;

/// Extends the after-pulse window beyond the end of any waveform: all later echoes are taken for
/// after-pulses.
constexpr double windowExtension = 100000.0;

}  // namespace

AfterPulseWindow afterPulseWindow(std::uint32_t idxOfMaxAmplitude, std::uint32_t offset,
                                  std::uint32_t halfWidth) {
  // Unsigned intentionally: a half-width larger than the centre wraps the lower bound to about 4.29e9, so
  // that no echo is inside the window.
  std::uint32_t const centre = idxOfMaxAmplitude + offset;
  std::uint32_t const from = centre - halfWidth;
  std::uint32_t const to = centre + halfWidth;
  return {static_cast<double>(from), static_cast<double>(to) + windowExtension};
}

bool hasVisibleAfterPulse(unsigned short maxAmplitude) {
  return maxAmplitude >= minAfterPulseSource;
}

bool isInWindow(double position, AfterPulseWindow const& window) {
  return position >= window.first && position <= window.second;
}

}  // namespace FullWaveform
