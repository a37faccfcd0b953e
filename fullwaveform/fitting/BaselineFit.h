#pragma once

#include <span>
#include <vector>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Gaussians of one waveform, equally many values of each, finite.
struct GaussianColumns {
  std::span<double const> positions;  ///< samples
  std::span<double> heights;          ///< counts above the baseline
  std::span<double> sigmas;           ///< standard deviations, samples
};

/// Heights and widths of decomposed echoes above the baseline.
///
/// The decomposition fits its Gaussians to what rises above the threshold, which makes them too narrow, and
/// too high by some percent. Here height and width of each are fitted again, at its position, to the samples
/// above the baseline within three standard deviations, one echo after the other (nonlinear Gauss-Seidel with
/// Gauss-Newton steps).
///
/// Keeps working memory: one object serves one thread at a time.
class BaselineFit {
 public:
  /// @param samples    of the waveform, counts
  /// @param baseline   counts
  /// @param gaussians  start values; heights become those of the waveform at each echo, less the other
  /// Gaussians.
  ///                   A width that would change to less than half or more than three times itself is kept.
  FULLWAVEFORM_EXPORT void refine(std::span<unsigned short const> samples, double baseline,
                                  GaussianColumns const& gaussians);

 private:
  struct Gaussian {
    double position;
    double height;
    double sigma;
    double startSigma;
    bool hasFixedSigma;
  };

  void subtract(Gaussian const& gaussian, double height);
  double improve(Gaussian& gaussian);

  std::vector<double> residual;
  std::vector<Gaussian> echoes;
};

}  // namespace FullWaveform
