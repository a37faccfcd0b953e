#include <fullwaveform/fitting/BaselineFit.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

#include <fullwaveform/fitting/SmoothedValue.h>

namespace FullWaveform {
namespace {

constexpr double reachInSigmas = 6.0;   // further away a Gaussian is below 2e-8 of its maximum
constexpr double windowInSigmas = 3.0;  // of the decomposition, whose widths are too small
constexpr double minSigmaRatio = 0.5;
constexpr double maxSigmaRatio = 3.0;
constexpr double maxStep = 0.3;          // of the width, relative
constexpr double convergedStep = 1e-3;   // of the width, relative
constexpr double minDeterminant = 1e-6;  // of the normal equations, relative
constexpr int maxSweeps = 20;

/// Indices within a distance of a position.
struct Window {
  std::size_t begin = 0;
  std::size_t end = 0;

  Window(double position, double distance, std::size_t count) {
    double const first = std::ceil(std::max(position - distance, 0.0));
    double const last = std::floor(std::min(position + distance, static_cast<double>(count) - 1.0));
    if (first <= last) {  // false for NaN
      begin = static_cast<std::size_t>(first);
      end = static_cast<std::size_t>(last) + 1;
    }
  }
};

}  // namespace

void BaselineFit::refine(std::span<unsigned short const> samples, double baseline,
                         GaussianColumns const& gaussians) {
  auto const& [positions, heights, sigmas] = gaussians;
  residual.resize(samples.size());
  std::transform(samples.begin(), samples.end(), residual.begin(),
                 [baseline](unsigned short sample) { return sample - baseline; });
  echoes.clear();
  for (std::size_t k = 0; k < positions.size(); ++k) {
    double const sigma = std::abs(sigmas[k]);
    echoes.push_back({positions[k], heights[k], sigma, sigma, !(sigma > 0.0)});
    subtract(echoes.back(), heights[k]);
  }
  double change = 1.0;
  for (int sweep = 0; sweep < maxSweeps && change > convergedStep; ++sweep) {
    change = 0.0;
    for (Gaussian& echo : echoes) {
      change = std::max(change, improve(echo));
    }
  }
  for (std::size_t k = 0; k < echoes.size(); ++k) {
    heights[k] = echoes[k].height + smoothedAt(residual, echoes[k].position);
    sigmas[k] = echoes[k].sigma;
  }
}

void BaselineFit::subtract(Gaussian const& gaussian, double height) {
  if (!(gaussian.sigma > 0.0)) {
    return;
  }
  Window const window(gaussian.position, reachInSigmas * gaussian.sigma, residual.size());
  double const exponent = -0.5 / (gaussian.sigma * gaussian.sigma);
  for (std::size_t i = window.begin; i < window.end; ++i) {
    double const off = static_cast<double>(i) - gaussian.position;
    residual[i] -= height * std::exp(exponent * off * off);
  }
}

/// Improves height and width by a Gauss-Newton step; returns the relative change of the width.
double BaselineFit::improve(Gaussian& echo) {
  Window const window(echo.position, windowInSigmas * echo.startSigma, residual.size());
  double shapeShape = 0.0;
  double shapeSpread = 0.0;
  double spreadSpread = 0.0;
  double shapeResidual = 0.0;
  double spreadResidual = 0.0;
  for (std::size_t i = window.begin; i < window.end; ++i) {
    double const off = (static_cast<double>(i) - echo.position) / echo.sigma;
    double const shape = std::exp(-0.5 * off * off);
    double const spread = shape * off * off;  // derivative by the logarithm of the width
    double const rest = residual[i];
    shapeShape += shape * shape;
    shapeSpread += shape * spread;
    spreadSpread += spread * spread;
    shapeResidual += shape * rest;
    spreadResidual += spread * rest;
  }
  double const determinant = shapeShape * spreadSpread - shapeSpread * shapeSpread;
  if (echo.hasFixedSigma || !(echo.height > 0.0) ||
      !(determinant > minDeterminant * shapeShape * spreadSpread)) {
    return 0.0;
  }
  double const growth = (shapeResidual * spreadSpread - spreadResidual * shapeSpread) / determinant;
  double const widening =
      (spreadResidual * shapeShape - shapeResidual * shapeSpread) / (determinant * echo.height);
  double const step = std::clamp(widening, -maxStep, maxStep);
  double const sigma = echo.sigma * (1.0 + step);
  subtract(echo, -echo.height);
  if (sigma < minSigmaRatio * echo.startSigma || sigma > maxSigmaRatio * echo.startSigma) {
    // A Gaussian does not describe this echo above the baseline.
    echo.sigma = echo.startSigma;
    echo.hasFixedSigma = true;
  } else {
    echo.sigma = sigma;
    echo.height = std::max(echo.height + growth, 0.0);
  }
  subtract(echo, echo.height);
  return std::abs(step);
}

}  // namespace FullWaveform
