#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/SystemWaveShape.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Positions and heights of deconvolved echoes, refined by fitting the system wave to the samples.
///
/// Deconvolved positions are multiples of the up-sampling step. Here each echo is a shifted and scaled system
/// wave; shifts and scales of all echoes of a waveform are fitted together by least squares, one echo after
/// the other (nonlinear Gauss-Seidel with Gauss-Newton steps). For white noise this is the maximum-likelihood
/// estimate of the position.
///
/// Keeps working memory: one object serves one thread at a time.
class SystemWaveFit {
 public:
  /// @throws std::invalid_argument when the scanner has no system wave
  FULLWAVEFORM_EXPORT explicit SystemWaveFit(ScannerDevice const& device);

  /// Refines the echoes of one waveform.
  ///
  /// @param samples    of the waveform, counts
  /// @param baseline   counts
  /// @param positions  of its echoes as `RL_Planes` gives them, finite; refined where the fit stays within a
  /// sample
  ///                   of them
  /// @param heights    receives the height of the waveform above the baseline at each echo, less the other
  /// echoes,
  ///                   counts
  FULLWAVEFORM_EXPORT void refine(std::span<unsigned short const> samples, double baseline,
                                  std::span<double> positions, std::span<double> heights);

 private:
  struct Echo {
    double start;  ///< position of the deconvolution
    double position;
    double scale;
    bool isMovable;
  };
  /// The system wave of an echo at the samples that it covers.
  struct Cover {
    std::size_t first;
    std::span<SystemWaveShape::Value const> values;
  };
  /// Sums over those samples.
  struct Products {
    double waveWave;
    double waveSlope;
    double slopeSlope;
    double waveResidual;
    double slopeResidual;
  };

  Cover coverOf(double position);
  [[nodiscard]] Products productsOf(Cover const& cover) const;
  void subtract(Cover const& cover, double scale);
  template <class Improvement>
  void iterate(int sweeps, double converged, Improvement const& improveEcho);
  double improveScale(Echo& echo);
  double improve(Echo& echo);

  SystemWaveShape shape;
  std::vector<double> residual;
  std::vector<SystemWaveShape::Value> covered;
  std::vector<Echo> echoes;
};

}  // namespace FullWaveform
