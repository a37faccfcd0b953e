#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/model/AdditionalAttributesPerWave.h>
#include <fullwaveform/model/Peak.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Results of one waveform: the analysis of its signal, and its echoes.
///
/// Does not keep the samples. Shared as `StrongPtr<WavePoints<unsigned short>>`.
template <class T>
class FULLWAVEFORM_EXPORT WavePoints : public AdditionalAttributesPerWave,
                                       public Holdex::ReferenceBase<WavePoints<T>> {
 public:
  std::uint32_t idxOfMaxAmplitude = 0;
  T maxAmplitude = 0;  ///< counts
  std::list<Peak> peaks;
  double binShift = 0.0;                              ///< samples
  std::uint32_t length = 0;                           ///< samples
  T noise = 0;                                        ///< counts
  float maxAmplitudeDB = 0.0F;                        ///< dB, set by the driver
  double timeOfMaxAmplitude = 0.0;                    ///< s, set by the driver
  bool online = true;                                 ///< reported as "Online", otherwise as "FWF"
  std::uint32_t globalStart = 0;                      ///< start of the first segment
  std::uint32_t globalEnd = 0;                        ///< end of the last segment
  std::map<std::uint32_t, std::uint32_t> startEnd;    ///< segments: start to end
  std::uint32_t lengthCropped = 0;                    ///< globalEnd - globalStart
  std::vector<std::pair<double, double>> afterPulse;  ///< closed intervals of positions, samples

  WavePoints() = default;

  /// A waveform without samples, for on-board echoes.
  WavePoints(unsigned char const& lowPower, double const& shotTime, double const& sblTime);

  /// Analyses the samples of a waveform.
  ///
  /// @param samples   `length` values in counts; not kept. Not read when null or when length <= 0.
  /// @param lowPower  1 marks the low-power channel
  /// @param shotTime, sblTime  s
  /// @param length    number of samples
  /// @param noise     threshold in counts, of which the low 16 bits are used; estimated when negative
  /// @param scanner   supplies bin shift and after-pulse window
  /// @throws std::length_error when length and noise are negative
  WavePoints(T const* samples, unsigned char const& lowPower, double const& shotTime, double const& sblTime,
             int const& length, int const& noise, ScannerDevice const& scanner);

  void push_back(Peak const& p) { peaks.push_back(p); }
  [[nodiscard]] std::uint64_t size() const { return peaks.size(); }
  /// Stable, ascending sorts.
  void sort_time();
  void sort_idx();
  void clearPeaks() { peaks.clear(); }

  std::uint32_t& getIdxOfMaxAmplitude() { return idxOfMaxAmplitude; }
  T& getMaxAmplitude() { return maxAmplitude; }
  [[nodiscard]] bool signalIsAboveNoise() const { return noise < maxAmplitude; }

  /// Sets quality `AFTERPULS` and the host's class code for the echoes inside the after-pulse windows.
  /// Waveforms with a maximum below 800 counts have no visible after-pulse and are unchanged.
  void testIfAfterPulse();

  /// Always false: samples are integers, and the driver checks the times.
  [[nodiscard]] bool isNaN() const { return false; }
  /// True when the first echo is an on-board echo; independent of the field `online`.
  [[nodiscard]] bool isOnline() const;
  /// Always 0.0: the extent of the echoes is not measured.
  [[nodiscard]] double rangeFromFirstToLastPeak(double const& samplingTime) const;
  /// Sets the class code of all echoes.
  void setClassification(unsigned char c);

  /// Report with label, value and unit per line; ends with a rule, without a newline.
  [[nodiscard]] std::string print() const;

  /// Extent of the echoes in one line; `speed` in m/s converts times to one-way distances.
  [[nodiscard]] std::string printLengthAtMaxAmplitude(double const& speed) const;

  /// Appends one line per echo to a file: label, amplitude, idx, std, value. Errors when opening or writing
  /// the file are ignored.
  void exportToAscii(std::string path, std::string label, double value) const;
};

extern template class WavePoints<unsigned short>;

using WavePtr = Holdex::StrongPtr<WavePoints<unsigned short>, WavePoints<unsigned short>>;

}  // namespace FullWaveform
