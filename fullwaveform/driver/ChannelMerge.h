#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// Echoes of one waveform, as the merge of the channels reads and marks them.
struct MergeEchoes {
  std::span<double const> times;      ///< s
  std::span<float const> amplitudes;  ///< counts
  std::span<std::uint8_t> removed;    ///< set to 1; echoes with 1 take no part
};

/// Marks one copy of every echo that was recorded in both receiver channels of a shot.
///
/// Echoes less than three sampling intervals apart are the same echo. The low-power copy is kept unless it is
/// saturated (above 3000 counts); then the high-power copy is kept.
///
/// @param highPower         echoes of a high-power waveform
/// @param lowPower          echoes of a low-power waveform of the same shot
/// @param samplingInterval  s
void mergeChannels(MergeEchoes const& highPower, MergeEchoes const& lowPower, double samplingInterval);

/// The echoes of a shot, waveform by waveform in the order of arrival. Keeps its memory from one shot to the
/// next.
class ShotEchoes {
 public:
  void clear();
  void startWaveform(bool isHighPower);
  void add(double time, float amplitude);

  /// Merges every high-power waveform with every low-power one.
  /// @throws Cancelled
  void merge(double samplingInterval, WorkMeter& work);

  /// Whether an echo was marked, by its number in the order of `add`.
  [[nodiscard]] bool isRemoved(std::size_t echo) const { return removed[echo] != 0; }

 private:
  struct Waveform {
    bool isHighPower;
    std::size_t firstEcho;
  };

  [[nodiscard]] MergeEchoes echoesOf(std::size_t waveform);

  std::vector<Waveform> waveforms;
  std::vector<double> times;
  std::vector<float> amplitudes;
  std::vector<std::uint8_t> removed;
};

}  // namespace FullWaveform
