#include <fullwaveform/pulsefit/SampleWeights.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {

void SampleWeights::set(double quiet, std::span<VarianceBand const> bands, std::span<double> weights) {
  std::array<std::size_t, 2 * maxBands + 1> ends{};
  ends[0] = weights.size();
  std::size_t endCount = 1;
  auto const insert = [&](std::size_t end) {
    std::size_t at = endCount++;
    for (; at > 0 && ends[at - 1] > end; --at) {
      ends[at] = ends[at - 1];
    }
    ends[at] = end;
  };
  for (VarianceBand const& band : bands) {
    insert(band.first);
    insert(band.end);
  }
  count = 0;
  weightSum = 0.0;
  logarithmSum = 0.0;
  std::size_t first = 0;
  for (std::size_t e = 0; e < endCount; ++e) {
    std::size_t const end = ends[e];
    if (first == end) {
      continue;
    }
    double variance = quiet;
    for (VarianceBand const& band : bands) {
      if (first >= band.first && first < band.end) {
        variance += band.variance;
      }
    }
    double const weight = 1.0 / variance;
    auto const samples = static_cast<double>(end - first);
    std::fill(weights.data() + first, weights.data() + end, weight);
    parts[count++] = {first, end, weight};
    weightSum += samples * weight;
    if (variance > quiet) {
      logarithmSum += samples * std::log(variance / quiet);
    }
    first = end;
  }
}

}  // namespace FullWaveform
