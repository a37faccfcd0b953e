#pragma once

#include <cstdint>
#include <map>
#include <span>

namespace FullWaveform {

/// Segments and maximum of a waveform.
struct Segmentation {
  std::uint32_t idxOfMax = 0;                       ///< the first of equal maxima
  unsigned short max = 0;                           ///< counts; 0 if the waveform has no inner sample
  std::map<std::uint32_t, std::uint32_t> startEnd;  ///< segments: start to end
};

/// Finds the maximum and the segments above the noise in one pass.
///
/// A segment starts at the last sample not above the noise and ends at the first one below it. The first and
/// the last sample are not examined: a waveform of N samples that starts above the noise has a segment from
/// 1, one that ends above it a segment to N - 2 (which wraps for N < 2).
Segmentation segmentSignal(std::span<unsigned short const> samples, unsigned short noise);

}  // namespace FullWaveform
