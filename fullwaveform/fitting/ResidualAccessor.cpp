#include <fullwaveform/fitting/ResidualAccessor.h>

#include <algorithm>

#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/fitting/leastsquares/GaussianSum.h>

namespace FullWaveform {
namespace {

constexpr double minResidual = 1.0;  // counts

}  // namespace

unsigned short ResidualAccessor::operator()(unsigned short const& sample, double index) const {
  double explained = 0.0;
  for (Peak const& peak : peaks) {
    if (peak.std > 0.0) {
      explained += static_cast<double>(peak.amplitude) * gaussianAt(index, peak.idx, peak.std);
    }
  }
  double const residual = static_cast<double>(sample) - static_cast<double>(wave->noise) - explained;
  // std::max returns its first argument when that is NaN; the conversion is defined for NaN.
  return static_cast<unsigned short>(toSixteenBits(std::max(residual, minResidual)));
}

}  // namespace FullWaveform
