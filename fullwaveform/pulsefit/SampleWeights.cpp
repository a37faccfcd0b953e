#include <fullwaveform/pulsefit/SampleWeights.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {

void SampleWeights::set(double quiet, std::span<VarianceBand const> bands, std::span<double> weights) {
  std::array<std::size_t, 2 * maxBands + 2> ends;
  auto last = ends.begin();
  *last++ = 0;
  *last++ = weights.size();
  for (VarianceBand const& band : bands) {
    *last++ = band.first;
    *last++ = band.end;
  }
  std::sort(ends.begin(), last);
  count = 0;
  weightSum = 0.0;
  logarithmSum = 0.0;
  for (auto end = ends.begin() + 1; end != last; ++end) {
    std::size_t const first = end[-1];
    if (first == *end) {
      continue;
    }
    double variance = quiet;
    for (VarianceBand const& band : bands) {
      if (first >= band.first && first < band.end) {
        variance += band.variance;
      }
    }
    WeightSegment const& part = parts[count++] = {first, *end, 1.0 / variance};
    auto const samples = static_cast<double>(part.end - part.first);
    std::fill(weights.begin() + static_cast<std::ptrdiff_t>(part.first),
              weights.begin() + static_cast<std::ptrdiff_t>(part.end), part.weight);
    weightSum += samples * part.weight;
    if (variance > quiet) {
      logarithmSum += samples * std::log(variance / quiet);
    }
  }
}

}  // namespace FullWaveform
