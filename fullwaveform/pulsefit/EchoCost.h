#pragma once

#include <cstddef>

#include <fullwaveform/pulsefit/PulseFit.h>
#include <fullwaveform/pulsefit/PulseModel.h>

namespace FullWaveform {

/// The gain of the energy (twice the log-likelihood) that an echo must bring to be counted.
///
/// In noise alone the largest gain is the maximum of the square of the normalised matched filter z. The mean
/// number of upcrossings of a level u by z is sqrt(curvature) / (2 pi) exp(-u^2 / 2) per sample, where the
/// curvature is that of the autocorrelation of z at lag 0 (S. O. Rice, Mathematical analysis of random noise,
/// Bell System Technical Journal 24, 1945, doi:10.1002/j.1538-7305.1945.tb00453.x). It is 1 / (2 s^2) for a
/// Gaussian of standard deviation s, so that a waveform of n samples has n / (2 pi sqrt(2) s) exp(-cost / 2)
/// false alarms.
class EchoCost {
 public:
  /// Below this scatter noise, and not the variation of the shape of the pulse, decides what is an echo. With
  /// a scatter of 0.002 (a real scanner) and a floor of 25, 2 % of the sums of two real echoes had a third.
  static constexpr double smallScatter = 0.001;

  /// The smallest cost for pulses of a scatter.
  [[nodiscard]] static double floorFor(double scatter) { return scatter < smallScatter ? 25.0 : 40.0; }

  /// Standard deviation s of the Gaussian with the same curvature of its autocorrelation as the pulse:
  /// s^2 = integral of p^2 / (2 x integral of (dp/dlag)^2), samples. The noise is taken as correlated between
  /// neighbouring samples only, by as much as its noise correlation requires.
  [[nodiscard]] static double equivalentWidth(PulseModel const& model);

  /// @param model, settings  valid
  EchoCost(PulseModel const& model, PulseFitSettings const& settings);

  /// Cost for a waveform with a number of samples.
  [[nodiscard]] double at(std::size_t samples) const;

 private:
  double floor;
  double alarmsPerSample;  ///< at cost 0, over the permitted number per waveform
};

}  // namespace FullWaveform
