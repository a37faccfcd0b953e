#include <fullwaveform/scanner/ExponentialSum.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace FullWaveform {

void synthesiseSystemWave(std::span<std::complex<double> const> a, std::span<std::complex<double> const> b,
                          double dt, std::span<double> wave) {
  std::size_t const terms = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < wave.size(); ++i) {
    double const t = static_cast<double>(i) * dt;
    double sum = 0.0;
    for (std::size_t k = 0; k < terms; ++k) {
      double const decay = std::exp(b[k].real() * t);
      double const phase = b[k].imag() * t;
      // Only the real part of the product is kept.
      sum += a[k].real() * (decay * std::cos(phase)) - a[k].imag() * (decay * std::sin(phase));
    }
    wave[i] = sum;
  }
}

void normaliseToMaximum(std::span<double> wave) {
  if (wave.empty()) {
    return;
  }
  double const scale = 1.0 / *std::max_element(wave.begin(), wave.end());
  for (double& value : wave) {
    value *= scale;
  }
}

}  // namespace FullWaveform
