#pragma once

#include <map>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/MultiArray.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Converts the echoes that the scanner computed on board to waveform objects, one per shot.
template <class T>
class OnlineEvaluation {
 public:
  ScannerDevice scanner;  ///< supplies the group velocity

  /// @param scanner  copied
  FULLWAVEFORM_EXPORT explicit OnlineEvaluation(ScannerDevice const& scanner);

  /// Groups echoes by shot. Each array has one value per echo.
  ///
  /// @param shotTimes     s; echoes of equal time are one shot
  /// @param ranges        m, one way
  /// @param amplitudes    stored unchanged
  /// @param flags         1: low-power channel; the shot gets the flag of its nearest echo
  /// @param reflectances  stored unchanged
  /// @return shots by their time in s; each is one waveform without samples, whose echoes have the type
  ///         `ONLINE_OWP` and their two-way travel time in s, nearest first
  ///
  /// Echoes with a NaN shot time or without a value in one of the arrays are skipped; one console message
  /// counts them. All echoes of a shot time stay in one shot, even if they are so far apart that they were
  /// probably ranged in different zones: the shot time is what relates them to waveforms. A group velocity of
  /// 0 is not checked; every time is then infinite or NaN.
  FULLWAVEFORM_EXPORT std::map<double, Holdex::StrongPtr<WavePoints<T>>> apply(
      Kestra::MultiArray<1, double> const& shotTimes, Kestra::MultiArray<1, double> const& ranges,
      Kestra::MultiArray<1, float> const& amplitudes, Kestra::MultiArray<1, unsigned char> const& flags,
      Kestra::MultiArray<1, float> const& reflectances) const;
};

extern template class OnlineEvaluation<unsigned short>;

}  // namespace FullWaveform
