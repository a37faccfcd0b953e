#pragma once

#include <cstdint>
#include <map>
#include <span>

namespace FullWaveform {

/// What one pass over a record finds.
struct Segmentation {
  std::uint32_t idxOfMax = 0;                       ///< first of the largest inner samples
  unsigned short max = 0;                           ///< counts; 0 when there is no inner sample above 0
  std::map<std::uint32_t, std::uint32_t> startEnd;  ///< segments above the noise: start to end
};

/// Finds the strongest sample and the stretches above the noise.
///
/// A segment starts at the last sample that is not above the noise and ends at the first one below it. The
/// first and the last sample are never examined; a record that begins above the noise has a segment that
/// starts at 1, one that ends above it a segment that ends at N - 2 (also for N < 3, where that end wraps).
Segmentation segmentSignal(std::span<unsigned short const> samples, unsigned short noise);

}  // namespace FullWaveform
