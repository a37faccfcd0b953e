#include <bench/support/Waveforms.h>

#include <cmath>
#include <random>

#include "support/SkewedScanner.h"

namespace FullWaveform::Bench {

double pulse(PulseShape shape, double t) {
  if (shape == PulseShape::Gaussian) {
    return std::exp(-std::log(2.0) * std::pow((t - 6.0) / 2.0, 2.0));
  }
  return t < 0.0 ? 0.0 : 1.9 * std::exp(-0.25 * t) * (1.0 - std::cos(0.5 * t));
}

ScannerDevice scanner() {
  return Testing::skewedScanner();
}

Samples makeWaveform(std::size_t samples, std::size_t echoes, std::uint32_t number, PulseShape shape) {
  constexpr double margin = 14.0;  // length of a pulse, samples
  std::minstd_rand rng(number + 1);
  // Not a standard distribution: those differ between standard libraries.
  auto const uniform = [&rng] { return static_cast<double>(rng()) / 2147483647.0; };
  double const spacing = (static_cast<double>(samples) - margin) / static_cast<double>(echoes);
  std::vector<double> values(samples);
  for (double& value : values) {
    value = baseline + 4.0 * (uniform() - 0.5);
  }
  for (std::size_t echo = 0; echo < echoes; ++echo) {
    double const start = 1.0 + spacing * (static_cast<double>(echo) + uniform());
    double const height = 40.0 * std::pow(37.5, uniform());
    for (std::size_t i = 0; i < samples; ++i) {
      values[i] += height * pulse(shape, static_cast<double>(i) - start);
    }
  }
  Samples waveform(samples);
  for (std::size_t i = 0; i < samples; ++i) {
    waveform[i] = static_cast<unsigned short>(std::lround(values[i]));
  }
  return waveform;
}

Waveforms::Waveforms(std::size_t length, std::size_t echoes, PulseShape shape) {
  for (std::uint32_t number = 0; number < waveformCount; ++number) {
    Samples const& own = samples.emplace_back(makeWaveform(length, echoes, number, shape));
    waves.emplace_back(
        new WavePoints<unsigned short>(own.data(), 1, 0.0, 0.0, static_cast<int>(length), noise, scanner()));
  }
}

Block blockOf(std::size_t samples, std::size_t echoes) {
  std::vector<Testing::Row> rows;
  for (std::uint32_t number = 0; number < waveformCount; ++number) {
    rows.push_back({makeWaveform(samples, echoes, number), number / 2 * 1e-5,
                    static_cast<unsigned char>(number % 2), 0.0});
  }
  return Testing::blockOf(rows);
}

}  // namespace FullWaveform::Bench
