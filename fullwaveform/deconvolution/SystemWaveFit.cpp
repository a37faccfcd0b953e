#include <fullwaveform/deconvolution/SystemWaveFit.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <stdexcept>

#include <fullwaveform/deconvolution/DeconvolutionInput.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/fitting/SmoothedValue.h>
#include <fullwaveform/scanner/ExponentialSum.h>

namespace FullWaveform {
namespace {

constexpr std::uint32_t stepsPerSample = 16;  // of the table: the interpolation is exact to about 1e-7
constexpr double maxShift = 1.0;              // samples from the deconvolved position
constexpr double maxStep = 0.25;              // samples per iteration
constexpr double convergedStep =
    1e-4;  // samples; a tenth of the noise bound at a height of 1e4 times the rms
constexpr double convergedScale = 1e-3;  // counts
constexpr double minDeterminant = 1e-6;  // of the normal equations, relative
constexpr int maxScaleSweeps = 20;
constexpr int maxSweeps = 40;

}  // namespace

SystemWaveFit::SystemWaveFit(ScannerDevice const& device) {
  auto const systemWave = upsampledSystemWave(device);
  if (!systemWave) {
    throw std::invalid_argument("the scanner has no system wave; the fit needs its exponential sums");
  }
  std::span<std::complex<double> const> const a(device.expsum_a->data(), device.expsum_a->size());
  std::span<std::complex<double> const> const b(device.expsum_b->data(), device.expsum_b->size());
  std::vector<std::complex<double>> derivative(b.begin(), b.end());
  for (std::size_t k = 0; k < derivative.size(); ++k) {
    derivative[k] *= a[k] * device.sampling_time;
  }
  std::vector<double> wave((device.size_sys - 1) * stepsPerSample + 1);
  std::vector<double> slope(wave.size());
  double const step = device.sampling_time / stepsPerSample;
  synthesiseSystemWave(a, b, step, wave);
  synthesiseSystemWave(derivative, b, step, slope);
  auto const maximum = std::max_element(wave.begin(), wave.end());
  for (std::size_t i = 0; i < wave.size(); ++i) {
    table.push_back({wave[i] / *maximum, slope[i] / *maximum});
  }
  maximumAt = static_cast<double>(maximum - wave.begin()) / stepsPerSample;
  // The blurring of an echo begins the first half of the system wave before it.
  double const half = static_cast<double>(kernelCentre(systemWave->size())) / device.up_sampling;
  lag = half + firstPosition(WavePoints<unsigned short>(), device.up_sampling);
}

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
    heights[k] = echoes[k].scale + smoothedAt(residual, echoes[k].position - lag + maximumAt);
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
  double const start = position - lag;
  double const length = static_cast<double>(table.size() - 1) / stepsPerSample;
  double const first = std::ceil(std::max(start, 0.0));
  double const last = std::floor(std::min(start + length, static_cast<double>(residual.size()) - 1.0));
  covered.clear();
  double sample = first;
  while (sample <= last) {
    covered.push_back(valueAt(sample - start));
    sample += 1.0;
  }
  return {covered.empty() ? 0 : static_cast<std::size_t>(first), covered};
}

/// Cubic Hermite interpolation.
SystemWaveFit::Value SystemWaveFit::valueAt(double sample) const {
  double const step = 1.0 / stepsPerSample;
  double const place = sample * stepsPerSample;
  auto const k = std::min(static_cast<std::size_t>(place), table.size() - 2);
  auto const& [y0, d0] = table[k];
  auto const& [y1, d1] = table[k + 1];
  double const t = place - static_cast<double>(k);
  double const rise = y1 - y0;
  double const c2 = 3.0 * rise - step * (2.0 * d0 + d1);
  double const c3 = step * (d0 + d1) - 2.0 * rise;
  return {y0 + t * (step * d0 + t * (c2 + t * c3)), d0 + t * (2.0 * c2 + t * 3.0 * c3) * stepsPerSample};
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
