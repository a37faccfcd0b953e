#include <fullwaveform/pulsefit/PulseModel.h>

#include <algorithm>
#include <cmath>

#include <fullwaveform/text/Number.h>

namespace FullWaveform {
namespace {

bool isFinite(std::vector<double> const& values) {
  return std::all_of(values.begin(), values.end(), [](double value) { return std::isfinite(value); });
}

std::string outOfRange(std::string const& name, double value, std::string const& rule) {
  return "invalid " + name + " " + shortestText(value) + " of the pulse model; expected " + rule;
}

/// A pulse with a width at half maximum, all of it inside the lags.
std::string shapeError(std::vector<double> const& pulse, double lagStep) {
  auto const maximum = std::max_element(pulse.begin(), pulse.end());
  double const height = *maximum;
  if (!(height >= 1e-6 && height <= 1e6)) {
    return outOfRange("maximum", height, "0.000001 to 1000000, usually 1");
  }
  if (*std::min_element(pulse.begin(), pulse.end()) < -height) {
    return "the pulse of the model has a dip deeper than its maximum is high; expected a positive pulse";
  }
  double const toEnd =
      lagStep * static_cast<double>(std::min(maximum - pulse.begin(), pulse.end() - 1 - maximum));
  if (!(toEnd > 1.0 && std::max(pulse.front(), pulse.back()) < 0.5 * height)) {
    return "the pulse of the model is cut off; expected a maximum more than a sample from both ends, "
           "and less than half of it there";
  }
  return "";
}

/// Far beyond the values of any digitiser, squares of the values would overflow or vanish.
std::string valueError(PulseModel const& model) {
  struct Bound {
    char const* name;
    double value;
    double lowest;
    double highest;
    char const* rule;
  };
  constexpr double small = 1e-6;
  constexpr double large = 1e6;
  for (Bound const& bound :
       {Bound{"baseline", model.baseline, -large, large, "-1000000 to 1000000 counts"},
        Bound{"noise rms", model.noiseRms, small, large, "0.000001 to 1000000 counts"},
        Bound{"noise correlation", model.noiseCorrelation, small, large, "0.000001 to 1000000"},
        Bound{"baseline spread", model.baselineSpread, 0.0, large, "0 to 1000000 counts"},
        Bound{"scatter", model.scatter, 0.0, 1.0, "0 to 1"},
        Bound{"variance spread", model.varianceSpread, small, large, "0.000001 to 1000000 samples squared"},
        Bound{"widening", model.widening, 0.0, large, "0 to 1000000 samples squared"}}) {
    if (!(bound.value >= bound.lowest && bound.value <= bound.highest)) {
      return outOfRange(bound.name, bound.value, bound.rule);
    }
  }
  return "";
}

}  // namespace

std::string PulseModel::error() const {
  constexpr std::size_t minValues = 8;
  constexpr std::size_t maxValues = 1U << 16U;
  if (pulse.size() < minValues || pulse.size() > maxValues) {
    return "the pulse of the model has " + std::to_string(pulse.size()) + " values; expected 8 to 65536";
  }
  if (!isFinite(pulse) || !(*std::max_element(pulse.begin(), pulse.end()) > 0.0)) {
    return "the pulse of the model must be finite, with a maximum above 0";
  }
  if (!(lagStep > 0.0 && lagStep <= 0.5)) {
    return outOfRange("lag step", lagStep, "above 0 and at most 0.5 samples");
  }
  double const length = lagStep * static_cast<double>(pulse.size() - 1);
  if (!(length >= 4.0 && length <= 512.0)) {
    return outOfRange("length", length, "4 to 512 samples");
  }
  if (!(firstLag < 0.0 && firstLag + length > 0.0)) {
    return outOfRange("first lag", firstLag, "a pulse that begins before lag 0 and ends after it");
  }
  std::string const ofShape = shapeError(pulse, lagStep);
  return ofShape.empty() ? valueError(*this) : ofShape;
}

}  // namespace FullWaveform
