#include <fullwaveform/deconvolution/SystemWaveShape.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <span>
#include <stdexcept>

#include <fullwaveform/deconvolution/DeconvolutionInput.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/scanner/ExponentialSum.h>

namespace FullWaveform {
namespace {

constexpr std::uint32_t stepsPerSample = 16;  // of the table: the interpolation is exact to about 1e-7

}  // namespace

SystemWaveShape::SystemWaveShape(ScannerDevice const& device) {
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

std::size_t SystemWaveShape::cover(double position, std::size_t size, std::vector<Value>& values) const {
  double const start = position - lag;
  double const length = static_cast<double>(table.size() - 1) / stepsPerSample;
  double const first = std::ceil(std::max(start, 0.0));
  double const last = std::floor(std::min(start + length, static_cast<double>(size) - 1.0));
  values.clear();
  double sample = first;
  while (sample <= last) {
    values.push_back(valueAt(sample - start));
    sample += 1.0;
  }
  return values.empty() ? 0 : static_cast<std::size_t>(first);
}

/// Cubic Hermite interpolation.
SystemWaveShape::Value SystemWaveShape::valueAt(double sample) const {
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

}  // namespace FullWaveform
