#include <fullwaveform/fitting/ResidualAccessor.h>

#include <algorithm>

#include <fullwaveform/fitting/GaussianSum.h>
#include <fullwaveform/fitting/ZeroCrossing.h>

namespace FullWaveform {
namespace {

constexpr double leastRest = 1.0;  // counts

}  // namespace

unsigned short ResidualAccessor::operator()(unsigned short const& sample, double index) const {
  double explained = 0.0;
  for (Peak const& peak : peaks) {
    if (peak.std > 0.0) {
      explained += static_cast<double>(peak.amplitude) * gaussianAt(index, peak.idx, peak.std);
    }
  }
  double const rest = static_cast<double>(sample) - static_cast<double>(wave->noise) - explained;
  // What is not a number passes the maximum, hence the conversion that is defined for it.
  return static_cast<unsigned short>(toSixteenBits(std::max(rest, leastRest)));
}

}  // namespace FullWaveform
