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

}  // namespace

std::string PulseModel::error() const {
  constexpr std::size_t minValues = 8;
  constexpr std::size_t maxValues = 1U << 16U;
  constexpr double maxLength = 512.0;  // samples
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
  if (!(length <= maxLength)) {
    return outOfRange("length", length, "at most 512 samples");
  }
  if (!(firstLag < 0.0 && firstLag + length > 0.0)) {
    return outOfRange("first lag", firstLag, "a pulse that begins before lag 0 and ends after it");
  }
  struct Bound {
    char const* name;
    double value;
    bool mayBeZero;
  };
  for (Bound const& bound :
       {Bound{"noise rms", noiseRms, false}, Bound{"noise correlation", noiseCorrelation, false},
        Bound{"baseline spread", baselineSpread, true}, Bound{"scatter", scatter, true},
        Bound{"variance spread", varianceSpread, false}, Bound{"widening", widening, true}}) {
    if (!std::isfinite(bound.value) || bound.value < 0.0 || (bound.value == 0.0 && !bound.mayBeZero)) {
      return outOfRange(bound.name, bound.value, bound.mayBeZero ? "at least 0" : "above 0");
    }
  }
  if (!std::isfinite(baseline)) {
    return outOfRange("baseline", baseline, "a finite number of counts");
  }
  return "";
}

}  // namespace FullWaveform
