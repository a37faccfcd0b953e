#include <fullwaveform/fitting/ThreePointGauss.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include <fullwaveform/fitting/ClampedIndex.h>
#include <fullwaveform/fitting/SampleLogarithm.h>

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

/// The Gaussian whose logarithm is the parabola through three logarithms of samples.
ThreePointGauss gaussThroughLogarithms(float left, float centre, float right) {
  auto const [c0, c1, c2] = parabolaThrough(left, centre, right);
  float const logarithmAtVertex = c0 - 0.25F * c1 * c1 / c2;
  // The curvature is not tested: the caller judges the results.
  return {static_cast<float>(std::exp(static_cast<double>(logarithmAtVertex))), -0.5F * c1 / c2,
          std::sqrt(-0.5F / c2)};
}

}  // namespace

ThreePointGauss gaussThroughThreeSamples(double left, double centre, double right) {
  return gaussThroughLogarithms(static_cast<float>(std::log(left)), static_cast<float>(std::log(centre)),
                                static_cast<float>(std::log(right)));
}

void fitThreePointGauss(std::span<unsigned short const> samples, ZeroCrossing::SampleAccessor const& accessor,
                        Peak& peak) {
  if (samples.empty()) {
    return;
  }
  int const k = truncatedIndex(peak.idx);
  auto const logarithmAt = [&](int index) {
    int const nearest = clampedIndex(index, samples);
    unsigned short const& sample = samples[static_cast<std::size_t>(nearest)];
    return static_cast<float>(
        logarithmOf(accessor ? accessor(sample, static_cast<double>(nearest)) : sample));
  };
  float const left = logarithmAt(k - 1);
  float const centre = logarithmAt(k);
  float const right = logarithmAt(k + 1);
  ThreePointGauss const gauss = gaussThroughLogarithms(left, centre, right);
  peak.amplitude = gauss.amplitude;
  peak.type = GAUSS_3POINTS;
  peak.idx = static_cast<double>(static_cast<float>(k - 1) + gauss.vertex);
  peak.std = static_cast<double>(gauss.std);
}

}  // namespace FullWaveform
