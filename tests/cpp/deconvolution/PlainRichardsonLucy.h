#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include <fftw3.h>

#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/scanner/SystemWave.h>

namespace FullWaveform::Testing {

/// Plain implementation of the deconvolution to compare with: transforms as long as the full convolution, one
/// loop per step. Not thread-safe, because it does not lock the planner.
class PlainRichardsonLucy {
 public:
  struct Echo {
    double idx;        ///< samples
    double amplitude;  ///< counts
  };
  struct Result {
    std::vector<Echo> echoes;
    int iterations = 0;
  };

  /// @param count  maximum waveform length, samples
  PlainRichardsonLucy(ScannerDevice const& device, std::size_t count)
      : up(device.up_sampling), systemLength((device.size_sys - 1) * up + 1) {
    std::size_t const n = systemLength + (count - 1) * up;
    real.resize(n);
    spectrum.resize(n / 2 + 1);
    auto* const bins = reinterpret_cast<fftw_complex*>(spectrum.data());
    auto const length = static_cast<int>(n);
    forward.reset(fftw_plan_dft_r2c_1d(length, real.data(), bins, FFTW_ESTIMATE));
    inverse.reset(fftw_plan_dft_c2r_1d(length, bins, real.data(), FFTW_ESTIMATE));
    auto const wave =
        createNormalizedSysWave(device.expsum_a, device.expsum_b, device.sampling_time / device.up_sampling,
                                static_cast<unsigned int>(systemLength), {});
    std::vector<double> kernel(wave->data(), wave->data() + systemLength);
    psf = transformed(kernel);
    std::reverse(kernel.begin(), kernel.end());
    reversedPsf = transformed(kernel);
  }

  /// @param disturbance  random error added to every value of a convolution, relative to its maximum; with
  ///                     the magnitude of rounding errors it simulates transforms of other lengths
  Result echoes(unsigned short const* samples, WavePoints<unsigned short> const& wave,
                double disturbance = 0.0, std::uint32_t seed = 1) {
    relativeDisturbance = disturbance;
    rng.seed(seed);
    std::vector<double> y = upSampled(samples, wave);
    double const maximum = maximumBeforeNoise;
    double const unit = *std::max_element(y.begin(), y.end());
    for (double& value : y) {
      value /= unit > 0.0 ? unit : 1.0;
    }
    Result result;
    std::vector<double> estimate = y;
    result.iterations = iterate(y, estimate);
    double const estimateMaximum = *std::max_element(estimate.begin(), estimate.end() - 1);
    for (double& value : estimate) {
      value = truncated(value * (maximum - wave.noise) / estimateMaximum + wave.noise);
    }
    result.echoes = maxima(estimate, wave);
    return result;
  }

 private:
  using Spectrum = std::vector<std::complex<double>>;

  struct DestroyPlan {
    void operator()(fftw_plan plan) const { fftw_destroy_plan(plan); }
  };
  using Plan = std::unique_ptr<std::remove_pointer_t<fftw_plan>, DestroyPlan>;

  /// The result is in the buffer that the plans use.
  Spectrum const& transformed(std::vector<double> const& x) {
    std::fill(real.begin(), real.end(), 0.0);
    std::copy_n(x.begin(), std::min(x.size(), real.size()), real.begin());
    fftw_execute(forward.get());
    return spectrum;
  }

  std::vector<double> convolution(std::vector<double> const& x, Spectrum const& kernel) {
    transformed(x);
    for (std::size_t k = 0; k < spectrum.size(); ++k) {
      spectrum[k] *= kernel[k];
    }
    fftw_execute(inverse.get());
    std::vector<double> out(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) {
      out[i] = real[systemLength / 2 - 1 + i] / static_cast<double>(real.size());
    }
    if (relativeDisturbance != 0.0) {
      disturb(out);
    }
    return out;
  }

  void disturb(std::vector<double>& values) {
    double const unit = relativeDisturbance * *std::max_element(values.begin(), values.end());
    for (double& value : values) {
      value += std::uniform_real_distribution<double>(-unit, unit)(rng);
    }
  }

  std::vector<double> upSampled(unsigned short const* samples, WavePoints<unsigned short> const& wave) {
    std::vector<double> y((wave.globalEnd - wave.globalStart) * up);
    maximumBeforeNoise = 0.0;
    for (std::size_t u = 0; u < y.size(); ++u) {
      double const x = static_cast<double>(u) * (1.0 / static_cast<double>(up));
      auto const j = static_cast<std::size_t>(x);
      double const left = samples[wave.globalStart + j];
      double const right = samples[wave.globalStart + j + 1];
      double const value = up == 1 ? left : left + (x - static_cast<double>(j)) * (right - left);
      y[u] = std::max(value - wave.noise, 0.0);
      maximumBeforeNoise = std::max(maximumBeforeNoise, up == 1 ? y[u] : value);
    }
    return y;
  }

  int iterate(std::vector<double> const& y, std::vector<double>& estimate) {
    double previous = 0.0;
    for (int k = 0;;) {
      std::vector<double> const blurred = convolution(estimate, psf);
      std::vector<double> ratio(y.size());
      for (std::size_t i = 0; i < y.size(); ++i) {
        ratio[i] = blurred[i] == 0.0 ? 0.0 : y[i] / blurred[i];
      }
      std::vector<double> const correction = convolution(ratio, reversedPsf);
      double sum = 0.0;
      for (std::size_t i = 0; i < y.size(); ++i) {
        estimate[i] *= correction[i];
        sum += correction[i];
      }
      bool const goOn = (sum <= previous || k < 6) && std::abs(previous - sum) >= 0.02;
      ++k;
      if (!goOn || k == 40) {
        return k;
      }
      previous = sum;
    }
  }

  static double truncated(double value) {
    return std::abs(value) < 2147483648.0 ? static_cast<std::uint16_t>(static_cast<std::int32_t>(value))
                                          : 0.0;
  }

  [[nodiscard]] std::vector<Echo> maxima(std::vector<double> const& x,
                                         WavePoints<unsigned short> const& wave) const {
    std::vector<Echo> found;
    for (std::size_t i = 0; i < x.size(); ++i) {
      double const rise = x[i] - x[i == 0 ? 0 : i - 1];
      double const fall = x[i] - x[i + 1 == x.size() ? i : i + 1];
      if (rise > 0.0 && fall >= 0.0 && x[i] > wave.noise && (rise >= 2.0 || fall >= 2.0)) {
        found.push_back(echoAt(i, x[i], wave));
      }
    }
    auto const top = std::max_element(x.begin(), x.end());
    if (found.empty() && *top > wave.noise) {
      found.push_back(echoAt(static_cast<std::size_t>(top - x.begin()), *top, wave));
    }
    return found;
  }

  [[nodiscard]] Echo echoAt(std::size_t i, double amplitude, WavePoints<unsigned short> const& wave) const {
    auto const steps = static_cast<double>(up);
    double const shift = up == 1 ? 0.0 : 0.5 * steps;
    return {static_cast<double>(i) / steps + (wave.globalStart - shift), amplitude};
  }

  std::size_t up;
  std::size_t systemLength;
  std::vector<double> real;
  Spectrum spectrum;
  Plan forward;
  Plan inverse;
  Spectrum psf;
  Spectrum reversedPsf;
  double maximumBeforeNoise = 0.0;
  double relativeDisturbance = 0.0;
  std::minstd_rand rng;
};

}  // namespace FullWaveform::Testing
