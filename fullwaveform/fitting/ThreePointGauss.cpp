#include <fullwaveform/fitting/ThreePointGauss.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <fullwaveform/fitting/ClampedIndex.h>

namespace FullWaveform {
namespace {

/// Truncates toward zero and clamps to the range of an index; NaN gives 0.
int truncatedIndex(double position) {
  constexpr double maxIndex = std::numeric_limits<int>::max() - 1;
  return std::isnan(position) ? 0 : static_cast<int>(std::clamp(position, -maxIndex, maxIndex));
}

/// Coefficients of the parabola c0 + c1 x + c2 x^2.
struct Parabola {
  float c0;
  float c1;
  float c2;
};

/// The parabola through values at x = 0, 1, 2: an LU factorisation with row pivoting, written out. The
/// curvature of equal values is +0, which makes the width NaN; -0 would make it infinite.
Parabola parabolaThrough(float left, float centre, float right) {
  float const rise = right - left;
  float const c2 = 0.5F * rise - (centre - left);
  float const c1 = 0.5F * (rise - 4.0F * c2);
  return {left, c1, c2};
}

float logarithmOf(double sample) {
  return static_cast<float>(std::log(sample));
}

}  // namespace

ThreePointGauss gaussThroughThreeSamples(double left, double centre, double right) {
  auto const [c0, c1, c2] = parabolaThrough(logarithmOf(left), logarithmOf(centre), logarithmOf(right));
  float const logarithmAtVertex = c0 - 0.25F * c1 * c1 / c2;
  // The curvature is not tested: the caller judges the results.
  return {static_cast<float>(std::exp(static_cast<double>(logarithmAtVertex))), -0.5F * c1 / c2,
          std::sqrt(-0.5F / c2)};
}

void fitThreePointGauss(std::span<unsigned short const> samples, ZeroCrossing::SampleAccessor const& accessor,
                        Peak& peak) {
  if (samples.empty()) {
    return;
  }
  int const k = truncatedIndex(peak.idx);
  auto const read = [&](int index) -> double {
    int const nearest = clampedIndex(index, samples);
    unsigned short const& sample = samples[static_cast<std::size_t>(nearest)];
    return accessor ? accessor(sample, static_cast<double>(nearest)) : sample;
  };
  double const left = read(k - 1);
  double const centre = read(k);
  double const right = read(k + 1);
  ThreePointGauss const gauss = gaussThroughThreeSamples(left, centre, right);
  peak.amplitude = gauss.amplitude;
  peak.type = GAUSS_3POINTS;
  peak.idx = static_cast<double>(static_cast<float>(k - 1) + gauss.vertex);
  peak.std = static_cast<double>(gauss.std);
}

}  // namespace FullWaveform
