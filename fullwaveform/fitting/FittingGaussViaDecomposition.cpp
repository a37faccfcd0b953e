#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>

#include <cstdint>
#include <functional>
#include <list>
#include <span>
#include <utility>

#include <fullwaveform/fitting/ClampedIndex.h>
#include <fullwaveform/fitting/ResidualAccessor.h>
#include <fullwaveform/fitting/ThreePointGauss.h>
#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr int strongSignal = 1800;  // counts; waveforms with a higher maximum get no second loop

TYPE typeOfLoop(int loop) {
  return loop == 0 ? GAUSS_DECOMPOSITION_1 : GAUSS_DECOMPOSITION_2;
}

/// Every residual subtracts all Gaussians found so far.
std::uint64_t workOfResiduals(std::size_t count, ResidualAccessor const& residual) {
  constexpr std::uint64_t workPerGaussian = 200;
  return workPerGaussian * count * residual.peaks.size();
}

/// Fills the peaks of the waveform with three-point Gaussians of the residual; false when no peak is found.
template <class SimplePeakType, class T>
bool findStarts(std::span<T const> samples, int first, int last, ResidualAccessor const& residual,
                WavePoints<T>& wave, WorkMeter* meter) {
  SimplePeakType simplePeak;
  simplePeak.minimumDifference = minGaussDifference;
  simplePeak.sampleAccessor = std::cref(residual);
  wave.clearPeaks();
  spend(meter, workOfResiduals(static_cast<std::size_t>(last - first) + 1, residual));
  // Intentional: the noise is subtracted by the accessor, and the finder compares with it once more, so only
  // samples above twice the noise start an echo.
  findRawPeaks(samples, first, last, wave.noise, wave.peaks, simplePeak);
  if (wave.peaks.empty()) {
    return false;
  }
  spend(meter, workOfResiduals(3 * wave.peaks.size(), residual));
  wave.testIfAfterPulse();
  for (Peak& peak : wave.peaks) {
    fitThreePointGauss(samples, simplePeak.sampleAccessor, peak);
    peak.type = typeOfLoop(residual.loop);
  }
  return true;
}

}  // namespace

/// A range of samples above the noise, both ends included.
template <class T, class SimplePeakType>
struct FittingGaussViaDecomposition<T, SimplePeakType>::Segment {
  std::span<T const> waveform;
  int first;
  int last;

  /// Signed: the segment of waveforms of one or two samples ends before it starts.
  [[nodiscard]] bool isFittable() const {
    return std::int64_t{last} - first >= minGaussRange && first >= 0 && last <= lastIndex(waveform);
  }

  [[nodiscard]] std::span<T const> samples() const {
    return waveform.subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(last - first) + 1);
  }
};

template <class T, class SimplePeakType>
bool FittingGaussViaDecomposition<T, SimplePeakType>::apply(T const* samples,
                                                            Holdex::StrongPtr<WavePoints<T>> const& wave) {
  if (!wave) {
    return false;
  }
  std::span<T const> const waveform(samples, samples == nullptr ? 0 : wave->length);
  int const extraLoops = wave->isLowPower && wave->maxAmplitude <= strongSignal ? 1 : 0;
  std::list<Peak> result;
  for (auto const& [start, end] : wave->startEnd) {
    Segment const segment{waveform, static_cast<std::int32_t>(start), static_cast<std::int32_t>(end)};
    if (segment.isFittable()) {
      result.splice(result.end(), decompose(segment, extraLoops, wave));
    }
  }
  wave->peaks = std::move(result);
  return true;
}

template <class T, class SimplePeakType>
std::list<Peak> FittingGaussViaDecomposition<T, SimplePeakType>::decompose(
    Segment const& segment, int extraLoops, Holdex::StrongPtr<WavePoints<T>> const& wave) {
  std::list<Peak> working;
  for (int loop = 0; loop <= extraLoops; ++loop) {
    ResidualAccessor const residual{working, wave, loop};
    if (!findStarts<SimplePeakType>(segment.waveform, segment.first, segment.last, residual, *wave, meter)) {
      break;
    }
    working.splice(working.end(), wave->peaks);
    refine(segment, wave->noise, working);
    if (!markBadPeaks(working, segment.first, segment.last, wave->noise)) {
      // The others were fitted next to the Gaussians that are removed.
      removeBadPeaks(working);
      refine(segment, wave->noise, working);
      break;
    }
  }
  return working;
}

template <class T, class SimplePeakType>
void FittingGaussViaDecomposition<T, SimplePeakType>::refine(Segment const& segment, T noise,
                                                             std::list<Peak>& peaks) {
  signal.clear();
  for (T const sample : segment.samples()) {
    signal.push_back(static_cast<double>(sample) - static_cast<double>(noise));
  }
  parameters.clear();
  for (Peak const& peak : peaks) {
    parameters.insert(parameters.end(), {static_cast<double>(peak.amplitude), peak.idx, peak.std});
  }
  refinement.refine(signal, segment.first, parameters, meter);
  auto value = parameters.cbegin();
  for (Peak& peak : peaks) {
    peak.amplitude = static_cast<float>(*value++);
    peak.idx = *value++;
    peak.std = *value++;
  }
}

template class FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
