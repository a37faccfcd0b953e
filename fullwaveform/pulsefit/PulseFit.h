#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>

#include <fullwaveform/Export.h>
#include <fullwaveform/pulsefit/PulseModel.h>

namespace FullWaveform {

/// Remarks on an echo of a pulse fit, bits of `PulseEcho::flags`.
enum PulseEchoFlag : std::uint8_t {
  FREE_WIDTH = 1,     ///< wider than the scatter of widths explains: the width was fitted without prior
  CLIPPED = 2,        ///< samples of its pulse are at the digitiser's limit
  AT_EDGE = 4,        ///< less than half of its width lies inside the waveform on one side
  NOT_CONVERGED = 8,  ///< the last fit ended after its maximum number of iterations
};

/// An echo of a pulse fit. Standard deviations follow from the Fisher information; NaN if it is singular.
struct PulseEcho {
  double position = 0.0;   ///< sample index
  double amplitude = 0.0;  ///< height above the baseline, counts
  double fwhm = 0.0;       ///< full width at half maximum, samples
  double sigmaPosition = std::numeric_limits<double>::quiet_NaN();
  double sigmaAmplitude = std::numeric_limits<double>::quiet_NaN();
  double sigmaFwhm = std::numeric_limits<double>::quiet_NaN();
  double significance = std::numeric_limits<double>::quiet_NaN();  ///< amplitude over its standard deviation
  std::uint8_t flags = 0;                                          ///< of `PulseEchoFlag`
};

/// Result for one waveform; valid until the next call.
struct PulseFitResult {
  std::span<PulseEcho const> echoes;  ///< in the order of their positions
  double baseline = 0.0;              ///< counts
  double reducedChiSquare = 0.0;      ///< 1 if the model explains the samples; NaN without degrees of freedom
  std::size_t clippedSamples = 0;
};

struct PulseFitSettings {
  double falseAlarms = 1.0;  ///< echoes per 1000 waveforms of noise alone
  double minEchoCost =
      std::numeric_limits<double>::quiet_NaN();  ///< smallest cost of an echo; NaN: `EchoCost::floorFor`
  double digitiserLimit =
      std::numeric_limits<double>::infinity();  ///< counts; samples from here on are clipped
  double maxVariance = 25.0;                    ///< of an echo, samples squared

  /// Empty, or what is wrong with the settings.
  [[nodiscard]] FULLWAVEFORM_EXPORT std::string error() const;
};

/// Maximum-likelihood fit of a sum of echoes with the measured pulse of the scanner.
///
/// The number of echoes is found by a greedy search: an echo is added, widened, split or removed as long as
/// that lowers the energy plus a cost per echo. Keeps its working memory: one object serves one thread at a
/// time. The result does not depend on the waveforms before.
class PulseFit {
 public:
  /// An invalid model or setting leaves the object without a fit: see `error`.
  FULLWAVEFORM_EXPORT explicit PulseFit(PulseModel const& model, PulseFitSettings const& settings = {});
  PulseFit(PulseFit const&) = delete;
  PulseFit& operator=(PulseFit const&) = delete;
  FULLWAVEFORM_EXPORT ~PulseFit();

  /// Empty, or what is wrong with the model or the settings.
  [[nodiscard]] FULLWAVEFORM_EXPORT std::string const& error() const;

  /// Finds the echoes of a waveform.
  ///
  /// @param samples  counts; an empty waveform, and every waveform if there is an error, has no echoes
  FULLWAVEFORM_EXPORT PulseFitResult apply(std::span<unsigned short const> samples);

  /// Adds the pulses of echoes at any places.
  ///
  /// @param echoes   their positions, amplitudes and widths; the other values are not used
  /// @param places   sample indices, finite and less than 1e9 from any echo
  /// @param heights  as many, counts; unchanged if there is an error
  FULLWAVEFORM_EXPORT void addPulses(std::span<PulseEcho const> echoes, std::span<double const> places,
                                     std::span<double> heights) const;

 private:
  struct Search;

  std::string message;
  std::unique_ptr<Search> search;
};

}  // namespace FullWaveform
