#pragma once

namespace FullWaveform {

/// How the variance v that is added to a pulse is distributed: a normal scatter plus an exponential widening,
/// because sloping surfaces widen an echo and nothing narrows it.
///
/// Energies are -2 ln of the density (the exponentially modified Gaussian), 0 at v = 0.
class WidthPrior {
 public:
  struct Energy {
    double value;
    double slope;
    double curvature;  ///< never negative: the density is log-concave
  };

  /// @param spread    standard deviation of the scatter, > 0
  /// @param widening  mean of the exponential distribution, >= 0
  WidthPrior(double spread, double widening);

  /// For several echoes in one waveform. They come from vegetation and edges, which widen echoes more than
  /// the surfaces of single echoes do: three times here. The scatter gets 0.4 of the widening in addition,
  /// because the curvature at the steep edge of an exponential distribution says little about its extent, and
  /// with it the stated uncertainty would be too small.
  [[nodiscard]] static WidthPrior ofSeveral(double spread, double widening);

  [[nodiscard]] Energy at(double variance) const;

 private:
  [[nodiscard]] Energy unnormalised(double variance) const;

  double spread;
  double widening;
  double atZero = 0.0;
};

}  // namespace FullWaveform
