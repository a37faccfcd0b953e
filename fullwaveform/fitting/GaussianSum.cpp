#include <fullwaveform/fitting/GaussianSum.h>

#include <cmath>

namespace FullWaveform {
namespace {

struct Gaussian {
  double amplitude;
  double position;
  double width;
};

/// The Gaussian that three parameters stand for in the model.
Gaussian gaussianOf(std::span<double const> parameters, std::size_t first) {
  return {std::abs(parameters[first]), std::abs(parameters[first + 1]), parameters[first + 2]};
}

}  // namespace

double gaussianAt(double x, double position, double width) {
  return std::exp(0.5 * (position - x) * (x - position) / (width * width));
}

void gaussianSumResidual(std::span<double const> parameters, int first, std::span<double const> signal,
                         std::span<double> residual) {
  for (std::size_t i = 0; i < signal.size(); ++i) {
    double const x = static_cast<double>(first) + static_cast<double>(i);
    double excess = -signal[i];
    for (std::size_t p = 0; p < parameters.size(); p += parametersPerGaussian) {
      Gaussian const gaussian = gaussianOf(parameters, p);
      excess += gaussian.amplitude * gaussianAt(x, gaussian.position, gaussian.width);
    }
    residual[i] = excess;
  }
}

void gaussianSumJacobian(std::span<double const> parameters, int first, std::span<double> jacobian) {
  if (parameters.empty()) {
    return;
  }
  std::size_t const samples = jacobian.size() / parameters.size();
  for (std::size_t p = 0; p < parameters.size(); p += parametersPerGaussian) {
    Gaussian const gaussian = gaussianOf(parameters, p);
    double const variance = gaussian.width * gaussian.width;
    std::span<double> const byAmplitude = jacobian.subspan(p * samples, samples);
    std::span<double> const byPosition = jacobian.subspan((p + 1) * samples, samples);
    std::span<double> const byWidth = jacobian.subspan((p + 2) * samples, samples);
    for (std::size_t i = 0; i < samples; ++i) {
      double const x = static_cast<double>(first) + static_cast<double>(i);
      double const distance = x - gaussian.position;
      double const shape = gaussianAt(x, gaussian.position, gaussian.width);
      byAmplitude[i] = shape;
      byPosition[i] = distance * gaussian.amplitude * shape / variance;
      byWidth[i] = gaussian.amplitude * shape * (distance * distance) / (std::abs(gaussian.width) * variance);
    }
  }
}

}  // namespace FullWaveform
