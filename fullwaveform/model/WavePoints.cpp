#include <fullwaveform/model/WavePoints.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include <fullwaveform/host/TarnClass.h>
#include <fullwaveform/model/AfterPulse.h>
#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Segmentation.h>

namespace FullWaveform {
namespace {

std::span<unsigned short const> waveform(unsigned short const* samples, int length) {
  return samples == nullptr || length <= 0 ? std::span<unsigned short const>()
                                           : std::span(samples, static_cast<std::size_t>(length));
}

template <class T>
T noiseLevel(std::span<T const> samples, int length, int noise) {
  if (noise >= 0) {
    return static_cast<T>(noise);
  }
  if (length < 0) {
    throw std::length_error("WavePoints: invalid length " + std::to_string(length) +
                            "; the noise estimate needs 0 samples or more");
  }
  return static_cast<T>(estimateNoise(samples));
}

/// Sorts only if necessary: methods mostly find echoes in order, and sorting a list takes as long as finding
/// them.
void sortBy(double Peak::* key, std::list<Peak>& peaks) {
  // Negated so that NaN falls through to the full sort.
  auto const isMisplaced = [key](Peak const& left, Peak const& right) { return !(left.*key <= right.*key); };
  if (std::adjacent_find(peaks.begin(), peaks.end(), isMisplaced) != peaks.end()) {
    peaks.sort([key](Peak const& left, Peak const& right) { return left.*key < right.*key; });
  }
}

}  // namespace

template <class T>
WavePoints<T>::WavePoints(unsigned char const& lowPower, double const& shotTime, double const& sblTime)
    : AdditionalAttributesPerWave{lowPower == 1, shotTime, sblTime} {}

template <class T>
WavePoints<T>::WavePoints(T const* samples, unsigned char const& lowPower, double const& shotTime,
                          double const& sblTime, int const& length, int const& noise,
                          ScannerDevice const& scanner)
    : AdditionalAttributesPerWave{lowPower == 1, shotTime, sblTime},
      binShift(scanner.bin_shift),
      length(static_cast<std::uint32_t>(length)),
      noise(noiseLevel<T>(waveform(samples, length), length, noise)) {
  Segmentation found = segmentSignal(waveform(samples, length), this->noise);
  idxOfMaxAmplitude = found.idxOfMax;
  maxAmplitude = found.max;
  startEnd.swap(found.startEnd);
  if (startEnd.empty()) {
    return;
  }
  globalStart = startEnd.begin()->first;
  globalEnd = startEnd.rbegin()->second;
  lengthCropped = globalEnd - globalStart;
  afterPulse.assign(1,
                    afterPulseWindow(idxOfMaxAmplitude, scanner.afterpulse_offset, scanner.afterpulse_width));
}

template <class T>
void WavePoints<T>::sort_time() {
  sortBy(&Peak::time, peaks);
}

template <class T>
void WavePoints<T>::sort_idx() {
  sortBy(&Peak::idx, peaks);
}

template <class T>
void WavePoints<T>::testIfAfterPulse() {
  if (!hasVisibleAfterPulse(maxAmplitude) || peaks.empty()) {
    return;
  }
  unsigned char const afterPulseClass = Quorvane::TarnClass::afterpulse;
  for (Peak& peak : peaks) {
    for (AfterPulseWindow const& window : afterPulse) {
      if (isInWindow(peak.idx, window)) {
        peak.quality = AFTERPULS;
        peak.classification = afterPulseClass;
      }
    }
  }
}

template <class T>
bool WavePoints<T>::isOnline() const {
  return !peaks.empty() && peaks.front().type == ONLINE_OWP;
}

template <class T>
double WavePoints<T>::rangeFromFirstToLastPeak(double const& /*samplingTime*/) const {
  return 0.0;
}

template <class T>
void WavePoints<T>::setClassification(unsigned char c) {
  for (Peak& peak : peaks) {
    peak.classification = c;
  }
}

template class WavePoints<unsigned short>;

}  // namespace FullWaveform
