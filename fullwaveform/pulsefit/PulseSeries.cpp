#include <fullwaveform/pulsefit/PulseSeries.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace FullWaveform {
namespace {

constexpr int phases = PulseSeries::phases;
// Above this frequency (cycles per sample) nothing of a pulse is in the samples, and a spline through them is
// arbitrary. The steep filter keeps narrowing, which amplifies high frequencies, from amplifying that.
constexpr double bandLimit = 0.9;
constexpr int maxFrequency = 1;  // cycles per sample

using Spectrum = PulseSeries::Spectrum;

/// Without the checks for infinities that the operator makes.
std::complex<double> product(std::complex<double> a, std::complex<double> b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

/// Fourier series of the pulse with the given period in samples.
Spectrum spectrumOf(PulseModel const& model, int period) {
  double const maximum = *std::max_element(model.pulse.begin(), model.pulse.end());
  std::size_t const count = model.pulse.size();
  auto const taper = static_cast<std::size_t>(std::ceil(1.0 / model.lagStep));  // one sample at each end
  Spectrum spectrum(static_cast<std::size_t>(period * maxFrequency) + 1);
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    double const frequency = static_cast<double>(k) / period;
    std::complex<double> sum;
    std::complex<double> wave = std::polar(1.0, -2.0 * std::numbers::pi * frequency * model.firstLag);
    std::complex<double> const turn = std::polar(1.0, -2.0 * std::numbers::pi * frequency * model.lagStep);
    for (std::size_t i = 0; i < count; ++i, wave = product(wave, turn)) {
      std::size_t const fromEnd = std::min(i, count - 1 - i);
      double const weight = fromEnd >= taper
                                ? 1.0
                                : 0.5 - 0.5 * std::cos(std::numbers::pi * static_cast<double>(fromEnd) /
                                                       static_cast<double>(taper));
      sum += weight * model.pulse[i] / maximum * wave;
    }
    double const filter = std::exp(-std::pow(frequency / bandLimit, 16.0));
    spectrum[k] = sum * (filter * model.lagStep / period * (k == 0 ? 1.0 : 2.0));
  }
  return spectrum;
}

/// exp(2 pi i k / count) for all k below count.
Spectrum rootsOfUnity(int count) {
  Spectrum roots(static_cast<std::size_t>(count));
  for (int k = 0; k < count; ++k) {
    roots[static_cast<std::size_t>(k)] = std::polar(1.0, 2.0 * std::numbers::pi * k / count);
  }
  return roots;
}

double angularFrequency(std::size_t index, Spectrum const& root) {
  return 2.0 * std::numbers::pi * phases * static_cast<double>(index) / static_cast<double>(root.size());
}

/// The series of the pulse with a variance added, up to its last term that matters to any derivative.
Spectrum widenedSpectrum(Spectrum spectrum, double variance, Spectrum const& root) {
  std::size_t count = 0;
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    double const angular = angularFrequency(k, root);
    spectrum[k] *= std::exp(-0.5 * variance * angular * angular);
    if (std::abs(spectrum[k]) * std::pow(std::max(angular, 1.0), 4.0) >= 1e-16) {
      count = k + 1;
    }
  }
  spectrum.resize(count);
  return spectrum;
}

/// Steps through the roots of unity that a term of a series has at equidistant lags.
class Turn {
 public:
  Turn(Spectrum const& root, int firstLag, std::size_t term, int step)
      : root(&root), size(static_cast<std::int64_t>(root.size())) {
    auto const at = [&](std::int64_t lagSteps) {
      std::int64_t const rest = lagSteps * static_cast<std::int64_t>(term) % size;
      return rest < 0 ? rest + size : rest;
    };
    index = at(std::int64_t{firstLag} * phases);
    by = at(step);
  }
  std::complex<double> next() {
    std::complex<double> const value = (*root)[static_cast<std::size_t>(index)];
    index += by;
    index -= index >= size ? size : 0;
    return value;
  }

 private:
  Spectrum const* root;
  std::int64_t size;
  std::int64_t index;
  std::int64_t by;
};

/// The lags outside which a pulse is negligible at whole lags, and two more on each side.
PulseSeries::Lags supportOf(Spectrum const& spectrum, Spectrum const& root, PulseSeries::Lags const& all) {
  std::vector<double> values(static_cast<std::size_t>(all.count));
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    Turn turn(root, all.first, k, phases);
    for (double& value : values) {
      value += product(spectrum[k], turn.next()).real();
    }
  }
  double const peak = *std::max_element(values.begin(), values.end());
  auto const matters = [&](double value) { return std::abs(value) > PulseSeries::negligible * peak; };
  auto const begin = std::find_if(values.begin(), values.end(), matters) - values.begin();
  auto const end = values.rend() - std::find_if(values.rbegin(), values.rend(), matters);
  int const first = std::max(static_cast<int>(begin) - 2, 0);
  return {all.first + first, std::min(static_cast<int>(end) + 2, all.count) - first};
}

PulseSeries::Curves curvesOf(Spectrum const& spectrum, Spectrum const& root, PulseSeries::Lags const& lags) {
  PulseSeries::Curves curves;
  curves.fill(std::vector<double>(static_cast<std::size_t>(lags.count * phases)));
  double* const values[] = {curves[0].data(), curves[1].data(), curves[2].data(), curves[3].data(),
                            curves[4].data()};
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    // Each derivative multiplies by i x angular frequency, which exchanges real and imaginary parts.
    double const angular = angularFrequency(k, root);
    double const second = -angular * angular;
    Turn turn(root, lags.first, k, 1);
    for (std::size_t i = 0; i < curves[0].size(); ++i) {
      std::complex<double> const value = product(spectrum[k], turn.next());
      double const slope = -angular * value.imag();
      double const curvature = second * value.real();
      values[0][i] += value.real();
      values[1][i] += slope;
      values[2][i] += curvature;
      values[3][i] += second * slope;
      values[4][i] += second * curvature;
    }
  }
  return curves;
}

}  // namespace

PulseSeries::PulseSeries(PulseModel const& model, Lags const& lags)
    : all(lags), spectrum(spectrumOf(model, lags.count)), roots(rootsOfUnity(lags.count * phases)) {}

PulseSeries::Widened PulseSeries::widened(double variance) const {
  Spectrum const series = widenedSpectrum(spectrum, variance, roots);
  Lags const lags = supportOf(series, roots, all);
  return {lags, curvesOf(series, roots, lags)};
}

}  // namespace FullWaveform
