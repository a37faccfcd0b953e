#include <fullwaveform/pulsefit/GaussUncertainty.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include <fullwaveform/fitting/LaneCount.h>
#include <fullwaveform/pulsefit/EchoInformation.h>
#include <fullwaveform/pulsefit/GaussianDerivatives.h>

namespace FullWaveform {
namespace {

/// Whether there is a sample at the index, above a threshold.
bool isAbove(std::span<unsigned short const> samples, std::size_t index, double threshold) {
  return index < samples.size() && samples[index] > threshold;
}

/// Cosine of the angle between two columns, in the samples where the first is not 0.
double cosine(double const* x, double const* y, std::size_t count) {
  double product = 0.0;
  double squareOfX = 0.0;
  double squareOfY = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    double const there = x[i] == 0.0 ? 0.0 : y[i];
    product += x[i] * there;
    squareOfX += x[i] * x[i];
    squareOfY += there * there;
  }
  double const squares = squareOfX * squareOfY;
  return squares > 0.0 ? product / std::sqrt(squares) : 0.0;
}

/// What is known of one of the fitted Gaussians.
struct FittedGaussian {
  GaussianPulse pulse;
  double positionSigma;
  double reach;
};

}  // namespace

struct GaussUncertainty::Memory {
  void add(FittedSamples const& waveform, FittedGaussian const& gaussian) {
    GaussianPulse pulse = gaussian.pulse;
    double const last = static_cast<double>(waveform.samples.size()) - 1.0;
    double const begin = std::ceil(std::max(pulse.position - gaussian.reach, 0.0));
    double const end = std::floor(std::min(pulse.position + gaussian.reach, last)) + 1.0;
    bool const isFitted = begin < end && pulse.sigma > 0.0 && gaussian.positionSigma > 0.0;  // false for NaN
    std::size_t const first = isFitted ? static_cast<std::size_t>(begin) : 0;
    std::size_t const count = isFitted ? static_cast<std::size_t>(end) - first : 0;
    PulseColumns const columns = information.add({.first = first,
                                                  .count = count,
                                                  .parameters = 3,
                                                  .maximum = pulse.position,
                                                  .isClipped = waveform.isClipped(first, count)});
    pulse.position -= static_cast<double>(first);
    differentiateGaussian(pulse, count, columns, information.instructionSet());
    mask(waveform, first, count, columns);
    weaken(pulse, gaussian.positionSigma, count, columns);
  }

  /// Leaves out what was not fitted.
  static void mask(FittedSamples const& waveform, std::size_t first, std::size_t count,
                   PulseColumns const& columns) {
    // The index before the first sample wraps around to one that is not in the waveform.
    bool before = isAbove(waveform.samples, first - 1, waveform.threshold);
    bool here = isAbove(waveform.samples, first, waveform.threshold);
    for (std::size_t i = 0; i < count; ++i) {
      bool const after = isAbove(waveform.samples, first + i + 1, waveform.threshold);
      if (waveform.samples[first + i] >= waveform.limit) {
        columns.value[i] = columns.byLag[i] = columns.byVariance[i] = 0.0;
      } else if (!before && !here && !after) {
        columns.byLag[i] = 0.0;
      }
      before = here;
      here = after;
    }
  }

  /// A fit with another width weighs the samples by the derivative g of its own Gaussian instead of that of
  /// the echo, f. The variance of its position is (g g) / (g f)^2 instead of 1 / (f f), which exceeds it by
  /// the cosine between f and g, squared.
  void weaken(GaussianPulse pulse, double positionSigma, std::size_t count, PulseColumns const& columns) {
    if (positionSigma == pulse.sigma) {
      return;
    }
    std::size_t const stride = count + laneCount;
    fitted.resize(std::max(fitted.size(), 3 * stride));
    pulse.sigma = positionSigma;
    PulseColumns const ofFit{fitted.data(), fitted.data() + stride, fitted.data() + 2 * stride};
    differentiateGaussian(pulse, count, ofFit, information.instructionSet());
    double const factor = cosine(columns.byLag, ofFit.byLag, count);
    std::transform(columns.byLag, columns.byLag + count, columns.byLag,
                   [factor](double value) { return factor * value; });
  }

  EchoInformation information;
  std::vector<double> fitted;
};

GaussUncertainty::GaussUncertainty() : memory(std::make_unique<Memory>()) {}

GaussUncertainty::~GaussUncertainty() = default;

void GaussUncertainty::apply(FittedSamples const& waveform, SampleNoise const& noise,
                             FittedGaussians const& gaussians, std::span<EchoUncertainty> result) {
  auto const& [positions, heights, sigmas, positionSigmas, reaches] = gaussians;
  memory->information.begin(waveform.samples.size(), noise.covariance.size() - 1);
  for (std::size_t k = 0; k < positions.size(); ++k) {
    memory->add(waveform, {{positions[k], heights[k], sigmas[k]}, positionSigmas[k], reaches[k]});
  }
  memory->information.solve(noise, result);
}

}  // namespace FullWaveform
