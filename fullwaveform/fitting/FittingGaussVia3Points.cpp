#include <fullwaveform/fitting/FittingGaussVia3Points.h>

#include <cstdint>
#include <span>

#include <fullwaveform/fitting/ThreePointGauss.h>
#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

/// Reads a sample of 0, whose logarithm is undefined, as 1.
unsigned short atLeastOne(unsigned short const& sample, double /*index*/) {
  return sample == 0 ? static_cast<unsigned short>(1) : sample;
}

}  // namespace

template <class T, class SimplePeakType>
bool FittingGaussVia3Points<T, SimplePeakType>::apply(T const* samples,
                                                      Holdex::StrongPtr<WavePoints<T>> const& wave) {
  // Signed: the range of waveforms of one or two samples ends before it starts.
  auto const first = static_cast<std::int32_t>(wave->globalStart);
  auto const last = static_cast<std::int32_t>(wave->globalEnd);
  if (std::int64_t{last} - first < minGaussRange || samples == nullptr) {
    return false;
  }
  std::span<T const> const values(samples, wave->length);
  SimplePeakType simplePeak;
  simplePeak.minimumDifference = minGaussDifference;
  findRawPeaks(values, first, last, wave->noise, wave->peaks, simplePeak);
  wave->testIfAfterPulse();
  removeBadPeaks(wave->peaks);
  ZeroCrossing::SampleAccessor const accessor = atLeastOne;
  for (Peak& peak : wave->peaks) {
    fitThreePointGauss(values, accessor, peak);
  }
  markBadPeaks(wave->peaks, first, last, wave->noise);
  removeBadPeaks(wave->peaks);
  wave->sort_idx();
  return true;
}

template class FittingGaussVia3Points<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
