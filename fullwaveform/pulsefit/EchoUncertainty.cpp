#include <fullwaveform/pulsefit/EchoUncertainty.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {

double SampleNoise::baselineVariance(std::size_t quietSamples) const {
  if (!std::isnan(baselineDeviation)) {
    return baselineDeviation * baselineDeviation;
  }
  double sum = covariance.front();
  for (double const value : covariance.subspan(1)) {
    sum += 2.0 * value;
  }
  return std::max(sum, 0.0) / static_cast<double>(std::max<std::size_t>(quietSamples, 1));
}

}  // namespace FullWaveform
