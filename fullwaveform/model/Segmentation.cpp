#include <fullwaveform/model/Segmentation.h>

namespace FullWaveform {

Segmentation segmentSignal(std::span<unsigned short const> samples, unsigned short noise) {
  Segmentation found;
  if (samples.empty()) {
    return found;
  }
  auto const count = static_cast<std::uint32_t>(samples.size());
  bool inside = samples.front() > noise;
  std::uint32_t start = 1;  // start of a segment that begins before the scan
  for (std::uint32_t i = 1; i + 1 < count; ++i) {
    unsigned short const sample = samples[i];
    if (found.max < sample) {
      found.max = sample;
      found.idxOfMax = i;
    }
    if (sample > noise && !inside) {
      start = i - 1;
      inside = true;
    } else if (sample < noise && inside) {
      found.startEnd[start] = i;
      inside = false;
    }
  }
  if (inside) {
    found.startEnd[start] = count - 2;
  }
  return found;
}

}  // namespace FullWaveform
