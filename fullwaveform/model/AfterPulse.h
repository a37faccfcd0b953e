#pragma once

#include <cstdint>
#include <utility>

namespace FullWaveform {

/// Closed interval of positions in samples.
using AfterPulseWindow = std::pair<double, double>;

/// Where the after-pulses of a waveform lie: around a fixed distance from its strongest sample, and after it.
///
/// @param offset, halfWidth  samples, of the scanner
AfterPulseWindow afterPulseWindow(std::uint32_t idxOfMaxAmplitude, std::uint32_t offset,
                                  std::uint32_t halfWidth);

/// Whether the strongest sample, in counts, is strong enough for a visible after-pulse.
bool hasVisibleAfterPulse(unsigned short maxAmplitude);

/// A NaN position is in no window.
bool isInWindow(double position, AfterPulseWindow const& window);

}  // namespace FullWaveform
