#include <fullwaveform/pulsefit/EchoCost.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace FullWaveform {

double EchoCost::equivalentWidth(PulseModel const& model) {
  std::size_t const slopeCount = model.pulse.size() - 1;
  auto const slope = [&](std::size_t i) { return (model.pulse[i + 1] - model.pulse[i]) / model.lagStep; };
  auto const sample = static_cast<std::size_t>(std::max(std::lround(1.0 / model.lagStep), 1L));
  double squares = 0.0;
  double slopes = 0.0;
  double laggedSquares = 0.0;  // products of values that are a sample apart
  double laggedSlopes = 0.0;
  for (std::size_t i = 0; i < slopeCount; ++i) {
    squares += model.pulse[i] * model.pulse[i];
    slopes += slope(i) * slope(i);
    if (i + sample < slopeCount) {
      laggedSquares += model.pulse[i] * model.pulse[i + sample];
      laggedSlopes += slope(i) * slope(i + sample);
    }
  }
  // The correlation of neighbouring samples that gives the noise of the matched filter changes that of its
  // derivative less. A pulse narrower than a sample does not depend on it.
  constexpr double leastCorrelation = 1e-3;
  double const variance = model.noiseCorrelation * model.noiseCorrelation;
  bool const isCorrelated = laggedSquares > leastCorrelation * squares;
  double const share = isCorrelated ? laggedSlopes * squares / (slopes * laggedSquares) : 1.0;
  double const ratio = std::clamp((1.0 + (variance - 1.0) * share) / variance, 0.5, 2.0);
  return std::sqrt(0.5 * squares / (slopes * ratio));
}

EchoCost::EchoCost(PulseModel const& model, PulseFitSettings const& settings)
    : floor(std::isnan(settings.minEchoCost) ? floorFor(model.scatter) : settings.minEchoCost),
      alarmsPerSample(1000.0 / settings.falseAlarms /
                      (2.0 * std::numbers::pi * std::numbers::sqrt2 * equivalentWidth(model))) {}

double EchoCost::at(std::size_t samples) const {
  constexpr double least = 9.0;  // three standard deviations: below it, peaks of noise are no rare events
  double const cost = 2.0 * std::log(alarmsPerSample * static_cast<double>(samples));
  return std::max({cost, floor, least});
}

}  // namespace FullWaveform
