#include <fullwaveform/deconvolution/SystemWaveFit.h>

#include <algorithm>
#include <cmath>

#include <fullwaveform/fitting/SmoothedValue.h>

namespace FullWaveform {
namespace {

constexpr double maxShift = 1.0;  // samples from the deconvolved position
constexpr double maxStep = 0.25;  // samples per iteration
constexpr double convergedStep =
    1e-4;  // samples; a tenth of the noise bound at a height of 1e4 times the rms
constexpr double convergedScale = 1e-3;  // counts
constexpr double minDeterminant = 1e-6;  // of the normal equations, relative
constexpr int maxScaleSweeps = 20;
constexpr int maxSweeps = 40;

}  // namespace

SystemWaveFit::SystemWaveFit(ScannerDevice const& device) : shape(device) {}

void SystemWaveFit::refine(std::span<unsigned short const> samples, double baseline,
                           std::span<double> positions, std::span<double> heights) {
  residual.resize(samples.size());
  std::transform(samples.begin(), samples.end(), residual.begin(),
                 [baseline](unsigned short sample) { return sample - baseline; });
  echoes.clear();
  for (double const position : positions) {
    echoes.push_back({position, position, 0.0, true});
  }
  // The scales first: an echo without its neighbours would be drawn towards them.
  iterate(maxScaleSweeps, convergedScale, [this](Echo& echo) { return improveScale(echo); });
  iterate(maxSweeps, convergedStep, [this](Echo& echo) { return improve(echo); });
  for (std::size_t k = 0; k < echoes.size(); ++k) {
    positions[k] = echoes[k].position;
    heights[k] = echoes[k].scale + smoothedAt(residual, shape.maximumOf(echoes[k].position));
  }
}

/// Calls `improveEcho` for each echo until no change that it returns exceeds `converged`.
template <class Improvement>
void SystemWaveFit::iterate(int sweeps, double converged, Improvement const& improveEcho) {
  for (int sweep = 0; sweep < sweeps; ++sweep) {
    double change = 0.0;
    for (Echo& echo : echoes) {
      change = std::max(change, improveEcho(echo));
    }
    if (change <= converged) {
      break;
    }
  }
}

/// Fits the scale of one echo, which is at least 0; returns its change in counts.
double SystemWaveFit::improveScale(Echo& echo) {
  Cover const cover = coverOf(echo.position);
  Products const products = productsOf(cover);
  if (!(products.waveWave > 0.0)) {
    return 0.0;
  }
  double const scale = std::max(echo.scale + products.waveResidual / products.waveWave, 0.0);
  double const change = scale - echo.scale;
  subtract(cover, change);
  echo.scale = scale;
  return std::abs(change);
}

/// Moves one echo by a Gauss-Newton step of position and scale; returns the change of its position in
/// samples.
double SystemWaveFit::improve(Echo& echo) {
  Cover const cover = coverOf(echo.position);
  auto const [waveWave, waveSlope, slopeSlope, waveResidual, slopeResidual] = productsOf(cover);
  double const determinant = waveWave * slopeSlope - waveSlope * waveSlope;
  if (!echo.isMovable || !(echo.scale > 0.0) || !(determinant > minDeterminant * waveWave * slopeSlope)) {
    improveScale(echo);
    return 0.0;
  }
  double const growth = (waveResidual * slopeSlope - slopeResidual * waveSlope) / determinant;
  double const step = (waveResidual * waveSlope - slopeResidual * waveWave) / (determinant * echo.scale);
  double const position = echo.position + std::clamp(step, -maxStep, maxStep);
  subtract(cover, -echo.scale);
  if (std::abs(position - echo.start) > maxShift) {
    // The system wave does not describe this echo.
    echo = {echo.start, echo.start, 0.0, false};
    improveScale(echo);
    return maxShift;
  }
  double const change = std::abs(position - echo.position);
  echo.position = position;
  echo.scale = std::max(echo.scale + growth, 0.0);
  subtract(coverOf(position), echo.scale);
  return change;
}

SystemWaveFit::Cover SystemWaveFit::coverOf(double position) {
  std::size_t const first = shape.cover(position, residual.size(), covered);
  return {first, covered};
}

SystemWaveFit::Products SystemWaveFit::productsOf(Cover const& cover) const {
  Products sum{};
  for (std::size_t i = 0; i < cover.values.size(); ++i) {
    auto const& [wave, slope] = cover.values[i];
    double const rest = residual[cover.first + i];
    sum.waveWave += wave * wave;
    sum.waveSlope += wave * slope;
    sum.slopeSlope += slope * slope;
    sum.waveResidual += wave * rest;
    sum.slopeResidual += slope * rest;
  }
  return sum;
}

void SystemWaveFit::subtract(Cover const& cover, double scale) {
  for (std::size_t i = 0; i < cover.values.size(); ++i) {
    residual[cover.first + i] -= scale * cover.values[i].wave;
  }
}

}  // namespace FullWaveform
