#include <fullwaveform/fitting/FittingGaussVia3Points.h>

#include <cstdint>
#include <span>

#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr double leastDifference = 2.0;  // counts
constexpr int shortestRange = 3;         // samples

/// A sample of 0 has no logarithm and is read as 1.
unsigned short atLeastOne(unsigned short const& sample, double /*index*/) {
  return sample == 0 ? static_cast<unsigned short>(1) : sample;
}

}  // namespace

template <class T, class SimplePeakType>
bool FittingGaussVia3Points<T, SimplePeakType>::apply(T const* samples,
                                                      Holdex::StrongPtr<WavePoints<T>> const& wave) {
  // Signed: records of one or two samples have a range that ends before it starts.
  auto const first = static_cast<std::int32_t>(wave->globalStart);
  auto const last = static_cast<std::int32_t>(wave->globalEnd);
  if (std::int64_t{last} - first < shortestRange || samples == nullptr) {
    return false;
  }
  std::span<T const> const record(samples, wave->length);

  simplePeak.minimumDifference = leastDifference;
  findRawPeaks(record, first, last, wave->noise, wave->peaks, simplePeak);
  wave->testIfAfterPulse();
  removeBadPeaks(wave->peaks);
  for (Peak& peak : wave->peaks) {
    fitter.fitPeak(record, atLeastOne, peak);
  }
  markBadPeaks(wave->peaks, first, last, wave->noise);
  removeBadPeaks(wave->peaks);
  wave->sort_idx();
  return true;
}

template class FittingGaussVia3Points<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
