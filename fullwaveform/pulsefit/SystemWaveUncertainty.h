#pragma once

#include <memory>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/pulsefit/EchoUncertainty.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Standard deviations of position and height of deconvolved echoes that were refined with the system wave,
/// as by `SystemWaveFit`; they have no width. Otherwise as `GaussUncertainty`.
///
/// Keeps its memory: one object serves one thread at a time.
class SystemWaveUncertainty {
 public:
  /// @throws std::invalid_argument when the scanner has no system wave
  FULLWAVEFORM_EXPORT explicit SystemWaveUncertainty(ScannerDevice const& device);

  SystemWaveUncertainty(SystemWaveUncertainty const&) = delete;
  SystemWaveUncertainty& operator=(SystemWaveUncertainty const&) = delete;
  FULLWAVEFORM_EXPORT ~SystemWaveUncertainty();

  /// @param positions  of the echoes, as `SystemWaveFit` refines them, in any order
  /// @param heights    counts above the baseline
  /// @param result     one per echo; NaN where the samples do not determine it
  FULLWAVEFORM_EXPORT void apply(FittedSamples const& waveform, SampleNoise const& noise,
                                 std::span<double const> positions, std::span<double const> heights,
                                 std::span<EchoUncertainty> result);

 private:
  struct Memory;

  std::unique_ptr<Memory> memory;
};

}  // namespace FullWaveform
