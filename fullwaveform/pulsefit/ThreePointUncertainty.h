#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/pulsefit/EchoUncertainty.h>

namespace FullWaveform {

struct ThreePointBatch;

/// Echoes of the three-point fit of one waveform, equally many values of each, in any order.
struct ThreePointEchoes {
  std::span<double const> positions;  ///< samples
  std::span<double const> sigmas;     ///< standard deviations, samples
};

/// Standard deviations of position, height and width of echoes of the three-point fit.
///
/// The fit uses three samples only, so its errors exceed the Cramer-Rao bound. They follow from those of the
/// logarithms of the samples, of which all three values are functions.
///
/// The echoes of several waveforms are computed together, each in a lane of a vector: one alone is a chain of
/// divisions that wait for each other. An echo's values do not depend on the others.
class FULLWAVEFORM_EXPORT ThreePointUncertainty {
 public:
  ThreePointUncertainty();
  ~ThreePointUncertainty();
  ThreePointUncertainty(ThreePointUncertainty const&) = delete;
  ThreePointUncertainty& operator=(ThreePointUncertainty const&) = delete;

  /// Takes the echoes of the next waveform.
  ///
  /// @param waveform  the samples as they were fitted, with their baseline
  /// @param result    one per echo, complete after `finish`, until which it must exist; NaN where one of its
  ///                  samples is clipped, or where the samples around it are not those of a three-point fit
  void add(FittedSamples const& waveform, SampleNoise const& noise, ThreePointEchoes const& echoes,
           std::span<EchoUncertainty> result);

  /// Completes all results.
  void finish();

 private:
  std::unique_ptr<ThreePointBatch> batch;
};

}  // namespace FullWaveform
