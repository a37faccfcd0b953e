#pragma once

#include <memory>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/pulsefit/EchoUncertainty.h>

namespace FullWaveform {

/// Gaussians of one waveform, equally many values of each, in any order.
struct FittedGaussians {
  std::span<double const> positions;  ///< samples
  std::span<double const> heights;    ///< counts above the baseline
  std::span<double const> sigmas;     ///< standard deviations, samples
  /// Standard deviations of the Gaussians with which the positions were fitted: those of a fit to what rises
  /// above the threshold are narrower than the echo.
  std::span<double const> positionSigmas;
  std::span<double const> reaches;  ///< distance from the position of the samples that were fitted
};

/// Standard deviations of position, height and width of Gaussians that were fitted to a waveform by least
/// squares and whose heights were completed by the smoothed residual, as by the decomposition with
/// `BaselineFit`.
///
/// For white noise they are the Cramer-Rao bounds of the samples in reach: the diagonal of the inverse Fisher
/// information of all echoes together.
///
/// Keeps its memory: one object serves one thread at a time.
class GaussUncertainty {
 public:
  FULLWAVEFORM_EXPORT GaussUncertainty();
  GaussUncertainty(GaussUncertainty const&) = delete;
  GaussUncertainty& operator=(GaussUncertainty const&) = delete;
  FULLWAVEFORM_EXPORT ~GaussUncertainty();

  /// @param result  one per Gaussian; NaN where the samples do not determine it, or where a value is not
  ///                finite
  FULLWAVEFORM_EXPORT void apply(FittedSamples const& waveform, SampleNoise const& noise,
                                 FittedGaussians const& gaussians, std::span<EchoUncertainty> result);

 private:
  struct Memory;

  std::unique_ptr<Memory> memory;
};

}  // namespace FullWaveform
