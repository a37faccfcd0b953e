#include <fullwaveform/pulsefit/EchoCost.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace FullWaveform {

double EchoCost::equivalentWidth(PulseModel const& model) {
  double squares = 0.0;
  double slopes = 0.0;
  for (std::size_t i = 0; i + 1 < model.pulse.size(); ++i) {
    double const slope = (model.pulse[i + 1] - model.pulse[i]) / model.lagStep;
    squares += model.pulse[i] * model.pulse[i];
    slopes += slope * slope;
  }
  return std::sqrt(0.5 * squares / slopes);
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
