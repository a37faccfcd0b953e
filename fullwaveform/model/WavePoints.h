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

/// One waveform: what the analysis of its signal found, and the echoes that a method put in.
///
/// Only results are kept, never the samples. Shared as `StrongPtr<WavePoints<unsigned short>>`.
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
  std::uint32_t globalStart = 0;                      ///< start of the first segment above the noise
  std::uint32_t globalEnd = 0;                        ///< end of the last segment above the noise
  std::map<std::uint32_t, std::uint32_t> startEnd;    ///< segments above the noise: start to end
  std::uint32_t lengthCropped = 0;                    ///< globalEnd - globalStart
  std::vector<std::pair<double, double>> afterPulse;  ///< closed windows of sample indices

  WavePoints() = default;

  /// A record that carries echoes of the scanner only, and no samples.
  WavePoints(unsigned char const& lowPower, double const& shotTime, double const& sblTime);

  /// Analyses a record.
  ///
  /// @param samples   `length` values in counts; not kept. Nothing is read when null or when length <= 0.
  /// @param lowPower  1 marks the low-power channel
  /// @param shotTime, sblTime  s
  /// @param length    number of samples
  /// @param noise     noise level in counts, its low 16 bits are kept; negative: estimate it
  /// @param scanner   supplies the bin shift and where the after-pulse is expected
  /// @throws std::length_error when the noise of a negative number of samples is to be estimated
  WavePoints(T const* samples, unsigned char const& lowPower, double const& shotTime, double const& sblTime,
             int const& length, int const& noise, ScannerDevice const& scanner);

  void push_back(Peak const& p) { peaks.push_back(p); }
  [[nodiscard]] std::uint64_t size() const { return peaks.size(); }
  /// Both sorts are stable and ascending.
  void sort_time();
  void sort_idx();
  void clearPeaks() { peaks.clear(); }

  std::uint32_t& getIdxOfMaxAmplitude() { return idxOfMaxAmplitude; }
  T& getMaxAmplitude() { return maxAmplitude; }
  [[nodiscard]] bool signalIsAboveNoise() const { return noise < maxAmplitude; }

  /// Marks the echoes inside the after-pulse windows of a strong return: quality `AFTERPULS`, class code of
  /// the host. A return below 800 counts has no visible after-pulse and is left alone.
  void testIfAfterPulse();

  /// Always false: samples are integers, and times are the driver's business.
  [[nodiscard]] bool isNaN() const { return false; }
  /// True when the first echo comes from the scanner; the field `online` is something else.
  [[nodiscard]] bool isOnline() const;
  /// Always 0.0; callers rely on it.
  [[nodiscard]] double rangeFromFirstToLastPeak(double const& samplingTime) const;
  void setClassification(unsigned char c);

  /// Every value with its label and unit, a line each; closed by a rule without a newline.
  [[nodiscard]] std::string print() const;

  /// Extent of the echoes in one line, times turned into one-way distances by `speed` (m/s).
  [[nodiscard]] std::string printLengthAtMaxAmplitude(double const& speed) const;

  /// Appends a line per echo to a file: label, amplitude, idx, std, value. A file that cannot be opened is
  /// left alone, silently.
  void exportToAscii(std::string path, std::string label, double value) const;

 private:
  void setAfterPulseWindow(ScannerDevice const& scanner);
};

extern template class WavePoints<unsigned short>;

using WavePtr = Holdex::StrongPtr<WavePoints<unsigned short>, WavePoints<unsigned short>>;

}  // namespace FullWaveform
