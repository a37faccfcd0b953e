#include <fullwaveform/model/WavePoints.h>

#include <algorithm>
#include <stdexcept>

#include <fullwaveform/host/TarnClass.h>
#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Segmentation.h>

namespace FullWaveform {
namespace {

/// Returns below this many counts have no visible after-pulse.
constexpr unsigned short strongReturn = 800;

/// Every echo behind the expected after-pulse counts as one: the window ends far behind any record.
constexpr double windowExtension = 100000.0;

std::span<unsigned short const> record(unsigned short const* samples, int length) {
  return samples == nullptr || length <= 0 ? std::span<unsigned short const>()
                                           : std::span(samples, static_cast<std::size_t>(length));
}

template <class T>
T noiseLevel(std::span<T const> samples, int length, int noise) {
  if (noise >= 0) {
    return static_cast<T>(noise);
  }
  if (length < 0) {
    throw std::length_error("WavePoints: noise estimate of a negative number of samples");
  }
  return static_cast<T>(estimateNoise(samples));
}

/// Echoes are mostly found in order, and the sort of a list costs as much as the search for them.
void sortBy(double Peak::* key, std::list<Peak>& peaks) {
  // Written so that what is not a number is left to the sort.
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
      noise(noiseLevel<T>(record(samples, length), length, noise)) {
  Segmentation found = segmentSignal(record(samples, length), this->noise);
  idxOfMaxAmplitude = found.idxOfMax;
  maxAmplitude = found.max;
  startEnd.swap(found.startEnd);
  if (startEnd.empty()) {
    return;
  }
  globalStart = startEnd.begin()->first;
  globalEnd = startEnd.rbegin()->second;
  lengthCropped = globalEnd - globalStart;
  setAfterPulseWindow(scanner);
}

template <class T>
void WavePoints<T>::setAfterPulseWindow(ScannerDevice const& scanner) {
  // Unsigned on purpose: a half-width beyond the position wraps the lower bound to about 4.29e9, a window
  // that no echo can lie in.
  std::uint32_t const centre = idxOfMaxAmplitude + scanner.afterpulse_offset;
  std::uint32_t const from = centre - scanner.afterpulse_width;
  std::uint32_t const to = centre + scanner.afterpulse_width;
  afterPulse.assign(1, {static_cast<double>(from), static_cast<double>(to) + windowExtension});
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
  if (maxAmplitude < strongReturn || peaks.empty()) {
    return;
  }
  unsigned char const afterPulseClass = Quorvane::TarnClass::afterpulse;
  for (Peak& peak : peaks) {
    for (auto const& [from, to] : afterPulse) {
      if (peak.idx >= from && peak.idx <= to) {
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
