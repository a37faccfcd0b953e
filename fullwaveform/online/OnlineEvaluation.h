#pragma once

#include <cstddef>
#include <map>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/MultiArray.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Turns the echoes that the scanner extracted on board into waveform objects, one per shot.
///
/// Remembers the gaps of its last call: one object serves one thread at a time.
template <class T>
class OnlineEvaluation {
 public:
  ScannerDevice scanner;  ///< supplies group velocity and unambiguous range

  /// @param scanner  copied
  FULLWAVEFORM_EXPORT explicit OnlineEvaluation(ScannerDevice const& scanner);

  /// Groups echoes by shot; all arrays run along the echoes.
  ///
  /// @param shotTimes     s; echoes of equal time are one shot
  /// @param ranges        m, one way
  /// @param amplitudes    kept as they stand
  /// @param flags         1: low-power channel; of a shot the flag of its nearest echo counts
  /// @param reflectances  kept as they stand
  /// @return shots by their time in seconds; in each one waveform without samples, whose echoes have the type
  ///         `ONLINE_OWP` and their two-way travel time in seconds, nearest first
  ///
  /// Echoes without a shot time or without a value in one of the arrays are left out; one console message
  /// says how many. A group velocity of 0 makes every time infinite, and nothing guards against it.
  FULLWAVEFORM_EXPORT std::map<double, Holdex::StrongPtr<WavePoints<T>>> apply(
      Kestra::MultiArray<1, double> const& shotTimes, Kestra::MultiArray<1, double> const& ranges,
      Kestra::MultiArray<1, float> const& amplitudes, Kestra::MultiArray<1, unsigned char> const& flags,
      Kestra::MultiArray<1, float> const& reflectances);

  /// Echoes of the last call that came half the unambiguous range or more behind their predecessor in the
  /// shot. One pulse hardly lights targets that far apart: they are likely to have been ranged in different
  /// zones. They stay in their shot all the same, since its time is what ties echoes and waveforms together.
  [[nodiscard]] std::size_t wideGaps() const { return gaps; }

 private:
  void orderByTravelTime(std::vector<std::size_t>& echoes, Kestra::MultiArray<1, double> const& ranges) const;
  [[nodiscard]] std::size_t countWideGaps(std::vector<std::size_t> const& echoes,
                                          Kestra::MultiArray<1, double> const& ranges) const;
  [[nodiscard]] double travelTime(double range) const { return range / scanner.group_velocity; }

  std::size_t gaps = 0;
};

extern template class OnlineEvaluation<unsigned short>;

}  // namespace FullWaveform
