#pragma once

#include <array>
#include <complex>
#include <vector>

#include <fullwaveform/pulsefit/PulseModel.h>

namespace FullWaveform {

/// Fourier series of a pulse, from which it follows with any variance added, and with its derivatives: a
/// Gaussian and a derivative are factors of each term.
class PulseSeries {
 public:
  static constexpr int phases = 16;           ///< values per lag
  static constexpr double negligible = 1e-7;  ///< of the maximum; values beyond the last larger one are 0

  using Spectrum = std::vector<std::complex<double>>;
  /// The pulse and its first four derivatives by lag: values[order][index].
  using Curves = std::array<std::vector<double>, 5>;

  /// A range of whole lags.
  struct Lags {
    int first = 0;
    int count = 0;
  };

  struct Widened {
    Lags lags;      ///< those at which the pulse is not negligible, and two more on each side
    Curves curves;  ///< index / phases is the lag from the first one on
  };

  /// @param model  valid
  /// @param lags   wide enough for the pulse with the largest variance
  PulseSeries(PulseModel const& model, Lags const& lags);

  /// The pulse convolved with a Gaussian; a negative variance narrows it.
  [[nodiscard]] Widened widened(double variance) const;

 private:
  Lags all;
  Spectrum spectrum;
  Spectrum roots;  ///< of unity for the period of the series, `all`, in steps of a phase
};

}  // namespace FullWaveform
