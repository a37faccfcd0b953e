#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>

#include <cstdint>
#include <functional>
#include <utility>

#include <fullwaveform/fitting/ClampedIndex.h>
#include <fullwaveform/fitting/GaussianSum.h>
#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr double leastDifference = 2.0;  // counts
constexpr int shortestSegment = 3;       // samples from the first to the last
constexpr int strongSignal = 1800;       // counts; above it one loop explains what is there

TYPE typeOfLoop(int loop) {
  return loop == 0 ? GAUSS_DECOMPOSITION_1 : GAUSS_DECOMPOSITION_2;
}

}  // namespace

/// A stretch above the noise, both ends included, in its record.
template <class T, class SimplePeakType>
struct FittingGaussViaDecomposition<T, SimplePeakType>::Segment {
  std::span<T const> record;
  int first;
  int last;

  /// Signed: records of one or two samples have a segment that ends before it starts.
  [[nodiscard]] bool isFittable() const {
    return std::int64_t{last} - first >= shortestSegment && first >= 0 && last <= lastIndex(record);
  }

  [[nodiscard]] std::span<T const> samples() const {
    return record.subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(last - first) + 1);
  }
};

template <class T, class SimplePeakType>
bool FittingGaussViaDecomposition<T, SimplePeakType>::apply(T const* samples,
                                                            Holdex::StrongPtr<WavePoints<T>> const& wave) {
  if (!wave) {
    return false;
  }
  std::span<T const> const record(samples, samples == nullptr ? 0 : wave->length);
  int const extraLoops = wave->isLowPower && wave->maxAmplitude <= strongSignal ? 1 : 0;
  std::list<Peak> result;
  for (auto const& [start, end] : wave->startEnd) {
    Segment const segment{record, static_cast<std::int32_t>(start), static_cast<std::int32_t>(end)};
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
    if (!findStarts(segment, residual, *wave)) {
      break;
    }
    working.splice(working.end(), wave->peaks);
    refine(segment, wave->noise, working);
    if (!markBadPeaks(working, segment.first, segment.last, wave->noise)) {
      // The others took the shape that the removed echoes left to them.
      removeBadPeaks(working);
      refine(segment, wave->noise, working);
      break;
    }
  }
  return working;
}

/// Fills the waveform's list with three-point Gaussians of the residual; false when there is no maximum.
template <class T, class SimplePeakType>
bool FittingGaussViaDecomposition<T, SimplePeakType>::findStarts(Segment const& segment,
                                                                 ResidualAccessor const& residual,
                                                                 WavePoints<T>& wave) {
  SimplePeakType simplePeak;
  simplePeak.minimumDifference = leastDifference;
  simplePeak.sampleAccessor = std::cref(residual);
  wave.clearPeaks();
  // The residual is already without the noise and is compared with it again: only samples above twice the
  // noise start an echo. This is meant.
  findRawPeaks(segment.record, segment.first, segment.last, wave.noise, wave.peaks, simplePeak);
  if (wave.peaks.empty()) {
    return false;
  }
  wave.testIfAfterPulse();
  for (Peak& peak : wave.peaks) {
    fitter.fitPeak(segment.record, simplePeak.sampleAccessor, peak);
    peak.type = typeOfLoop(residual.loop);
  }
  return true;
}

template <class T, class SimplePeakType>
void FittingGaussViaDecomposition<T, SimplePeakType>::refine(Segment const& segment, T noise,
                                                             std::list<Peak>& peaks) {
  parameters.clear();
  for (Peak const& peak : peaks) {
    parameters.insert(parameters.end(), {static_cast<double>(peak.amplitude), peak.idx, peak.std});
  }
  refinement.refine(segment.samples(), static_cast<double>(noise), segment.first, parameters);
  std::span<double const> values(parameters);
  for (Peak& peak : peaks) {
    peak.amplitude = static_cast<float>(values[0]);
    peak.idx = values[1];
    peak.std = values[2];
    values = values.subspan(parametersPerGaussian);
  }
}

template class FittingGaussViaDecomposition<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
