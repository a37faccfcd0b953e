#include <fullwaveform/deconvolution/RichardsonLucy.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>

#include <fullwaveform/deconvolution/DeconvolutionInput.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/FftPlanner.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>
#include <fullwaveform/deconvolution/TransformLength.h>
#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr double leastDifference = 2.0;  // counts
/// Of a ladder: what one of them is given is at most that much shorter than planned for.
constexpr std::size_t samplesBetweenPlanes = 25;
constexpr auto noSystemWave = "RichardsonLucy<T,SimplePeakType>::RichardsonLucy:: Have no SysWave";

/// Values of `count` samples with `steps` of them to each next sample; for no sample the step before the
/// first.
std::uint32_t upsampledLength(std::uint32_t count, std::uint32_t steps) {
  if (count == 0) {
    return 1U - steps;  // wraps, and comes back in the sum of lengths
  }
  std::uint64_t const length = std::uint64_t{count - 1U} * steps + 1U;
  // Half of what FFTW can plan, so that a signal and a system wave fit together.
  if (length > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max() / 2)) {
    throw std::length_error("RichardsonLucy: no transform for " + std::to_string(count) + " samples");
  }
  return static_cast<std::uint32_t>(length);
}

}  // namespace

template <class T, class SimplePeakType>
RichardsonLucy<T, SimplePeakType>::RichardsonLucy(ScannerDevice const& device, unsigned int const& count)
    : device(device),
      upsampled_length(upsampledLength(count, device.up_sampling)),
      sys_length(upsampledLength(device.size_sys, device.up_sampling)),
      peak_finder{} {
  peak_finder.minimumDifference = leastDifference;
  auto const systemWave = systemWaveOf(device, sys_length);
  if (!systemWave) {
    error = noSystemWave;
    return;
  }
  planTransforms({systemWave->data(), systemWave->size()});
}

template <class T, class SimplePeakType>
void RichardsonLucy<T, SimplePeakType>::planTransforms(std::span<double const> systemWave) {
  fft_length = sys_length + upsampled_length - 1;
  workspace = ConvolutionWorkspace(systemWave, fft_length);
  spectrum_bins = workspace.spectrumBins();
  if (fft_length < sys_length) {
    return;  // planned for no samples
  }
  std::size_t const longest = fft_length - sys_length + std::size_t{1};
  std::size_t const shortest = longest - std::min(longest, samplesBetweenPlanes * device.up_sampling);
  std::size_t const enough = leastTransformLength(longest, sys_length);
  for (std::size_t length = leastTransformLength(shortest, sys_length); length <= enough; ++length) {
    length = fastTransformLength(static_cast<std::uint32_t>(length));
    fastWorkspaces.emplace_back(systemWave, static_cast<std::uint32_t>(length));
  }
}

template <class T, class SimplePeakType>
ConvolutionWorkspace& RichardsonLucy<T, SimplePeakType>::transformsFor(std::size_t length) {
  if (length + sys_length > fft_length + std::size_t{1}) {
    return workspace;  // longer than planned for: its ends overlap
  }
  std::size_t const least = leastTransformLength(length, sys_length);
  return *std::find_if(fastWorkspaces.begin(), fastWorkspaces.end(),
                       [least](ConvolutionWorkspace const& fast) { return fast.fftLength() >= least; });
}

template <class T, class SimplePeakType>
void RichardsonLucy<T, SimplePeakType>::convolution(std::vector<double> const& x, double (*kernel)[2],
                                                    std::vector<double>& out) {
  convolve(workspace, kernel, centreOf(sys_length), x, out);
}

template <class T, class SimplePeakType>
int RichardsonLucy<T, SimplePeakType>::apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave) {
  if (!wave || !workspace) {
    return 1;
  }
  std::span<T const> const record(samples, samples == nullptr ? 0 : wave->length);
  std::span<T const> const range = rangeOf(record, *wave);
  std::size_t const length = range.empty() ? 0 : (range.size() - 1) * device.up_sampling;
  if (length < 2) {
    return 1;
  }
  ConvolutionWorkspace& transforms = transformsFor(length);
  InstructionSet const set = transforms.instructionSet;
  observed.resize(length);
  double const maximum = observe(range, device.up_sampling, wave->noise, set, observed);
  estimate = observed;
  deconvolve(observed, transforms, centreOf(sys_length), estimate);
  counts.resize(length);
  scaleToCounts(maximum, wave->noise, set, estimate, counts);
  findRawPeaks(counts, 0, static_cast<int>(length - 1), wave->noise, wave->peaks, peak_finder);
  mapToSamples(*wave);
  wave->testIfAfterPulse();
  removeBadPeaks(wave->peaks);
  return 1;
}

template <class T, class SimplePeakType>
void RichardsonLucy<T, SimplePeakType>::use(InstructionSet set) {
  workspace.instructionSet = set;
  for (ConvolutionWorkspace& fast : fastWorkspaces) {
    fast.instructionSet = set;
  }
}

template <class T, class SimplePeakType>
void RichardsonLucy<T, SimplePeakType>::mapToSamples(WavePoints<T>& wave) const {
  double const steps = device.up_sampling;
  double const start = wave.globalStart;
  for (Peak& peak : wave.peaks) {
    peak.type = RICHARDSON_LUCY;
    // Half the up-sampling factor, in samples, not half a sample: meant, the system wave counts on it.
    peak.idx = device.up_sampling == 1 ? peak.idx + start : peak.idx / steps + (start - steps * 0.5);
  }
}

template <class T, class SimplePeakType>
void RichardsonLucy<T, SimplePeakType>::releaseTogether(std::span<RichardsonLucy> planes) noexcept {
  aloneWithFftPlanner([planes] {
    for (RichardsonLucy& plane : planes) {
      plane.workspace.releaseAtPlanner();
      for (ConvolutionWorkspace& fast : plane.fastWorkspaces) {
        fast.releaseAtPlanner();
      }
    }
  });
}

template class RichardsonLucy<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
