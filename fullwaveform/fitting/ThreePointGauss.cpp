#include <fullwaveform/fitting/ThreePointGauss.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
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

/// The logarithm of a sample, from a table where digitisers of 12 bits count: small enough to stay in the
/// cache, and several times as fast as the function.
float logarithmOf(unsigned short sample) {
  constexpr std::size_t counts = 4096;
  static std::array<float, counts> const table = [] {
    std::array<float, counts> logarithms{};
    for (std::size_t i = 0; i < counts; ++i) {
      logarithms[i] = logarithmOf(static_cast<double>(i));
    }
    return logarithms;
  }();
  return sample < counts ? table[sample] : logarithmOf(static_cast<double>(sample));
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
  return gaussThroughLogarithms(logarithmOf(left), logarithmOf(centre), logarithmOf(right));
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
    return logarithmOf(accessor ? accessor(sample, static_cast<double>(nearest)) : sample);
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
