#include <fullwaveform/fitting/ThreePointGauss.h>

#include <cmath>
#include <limits>

#include <Eigen/LU>

#include <fullwaveform/fitting/ClampedIndex.h>

namespace FullWaveform {
namespace {

/// Truncation toward zero; what an index cannot be becomes the nearest that it can.
int truncatedIndex(double position) {
  constexpr double most = std::numeric_limits<int>::max() - 1;
  return std::isnan(position) ? 0 : static_cast<int>(std::clamp(position, -most, most));
}

}  // namespace

ThreePointGaussFitter::ThreePointGaussFitter()
    : design{1.0F, 1.0F, 1.0F,   //
             0.0F, 1.0F, 2.0F,   //
             0.0F, 1.0F, 4.0F},  //
      rightHandSide{} {}

ThreePointGauss ThreePointGaussFitter::fit(double left, double centre, double right) {
  rightHandSide = {static_cast<float>(std::log(left)), static_cast<float>(std::log(centre)),
                   static_cast<float>(std::log(right))};
  Eigen::Map<Eigen::Matrix3f const> const matrix(design.data());
  Eigen::Map<Eigen::Vector3f const> const logarithms(rightHandSide.data());
  Eigen::Vector3f const c = matrix.partialPivLu().solve(logarithms);
  float const logarithmAtVertex = c[0] - 0.25F * c[1] * c[1] / c[2];
  // No test of the curvature: what comes out of a flat or hollow triple is judged by its values later.
  return {static_cast<float>(std::exp(static_cast<double>(logarithmAtVertex))), -0.5F * c[1] / c[2],
          std::sqrt(-0.5F / c[2])};
}

void ThreePointGaussFitter::fitPeak(std::span<unsigned short const> samples,
                                    ZeroCrossing::SampleAccessor const& accessor, Peak& peak) {
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
  ThreePointGauss const gauss = fit(left, centre, right);
  peak.amplitude = gauss.amplitude;
  peak.type = GAUSS_3POINTS;
  peak.idx = static_cast<double>(static_cast<float>(k - 1) + gauss.vertex);
  peak.std = static_cast<double>(gauss.std);
}

}  // namespace FullWaveform
