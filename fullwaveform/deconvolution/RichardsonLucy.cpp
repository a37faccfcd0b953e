#include <fullwaveform/deconvolution/RichardsonLucy.h>

#include <algorithm>
#include <span>

#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>
#include <fullwaveform/deconvolution/DeconvolutionInput.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>
#include <fullwaveform/deconvolution/TransformLength.h>
#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr double minDifference = 2.0;  // counts
constexpr auto noSystemWave = "RichardsonLucy<T,SimplePeakType>::RichardsonLucy:: Have no SysWave";

/// Transforms of fast lengths for the signals that one plane of a ladder receives: those up to `planeStep`
/// samples shorter than the longest. Ascending; empty when the object is planned for no samples.
std::vector<ConvolutionWorkspace> fastWorkspaces(std::span<double const> systemWave, std::size_t fftLength,
                                                 std::uint32_t steps) {
  std::vector<ConvolutionWorkspace> workspaces;
  if (fftLength < systemWave.size()) {
    return workspaces;
  }
  std::size_t const maxSignal = fftLength - systemWave.size() + 1;
  std::size_t const minSignal = maxSignal - std::min(maxSignal, std::size_t{planeStep} * steps);
  std::size_t const maxLength = minTransformLength(maxSignal, systemWave.size());
  for (std::size_t length = minTransformLength(minSignal, systemWave.size()); length <= maxLength; ++length) {
    length = fastTransformLength(static_cast<std::uint32_t>(length));
    workspaces.emplace_back(systemWave, static_cast<std::uint32_t>(length));
  }
  return workspaces;
}

/// Sets type and position of all echoes, whose indices are those of the up-sampled signal.
void mapToSamples(WavePoints<unsigned short>& wave, std::uint32_t steps) {
  double const first = firstPosition(wave, steps);
  for (Peak& peak : wave.peaks) {
    peak.type = RICHARDSON_LUCY;
    peak.idx = peak.idx / steps + first;
  }
}

}  // namespace

template <class T, class SimplePeakType>
struct RichardsonLucy<T, SimplePeakType>::Transforms {
  Transforms(std::span<double const> systemWave, std::uint32_t fftLength, std::uint32_t steps)
      : exact(systemWave, fftLength), fast(fastWorkspaces(systemWave, fftLength, steps)) {}

  /// The shortest transforms for a signal. A signal longer than planned for uses the exact ones, in which its
  /// ends wrap around.
  ConvolutionWorkspace& workspaceFor(std::size_t length, std::size_t kernelLength) {
    if (length + kernelLength > exact.fftLength() + 1) {
      return exact;
    }
    std::size_t const minLength = minTransformLength(length, kernelLength);
    return *std::find_if(fast.begin(), fast.end(), [minLength](ConvolutionWorkspace const& workspace) {
      return workspace.fftLength() >= minLength;
    });
  }

  ConvolutionWorkspace exact;  ///< of `fft_length`
  std::vector<ConvolutionWorkspace> fast;
  std::vector<double> observed;
  std::vector<double> estimate;
  std::vector<T> counts;
};

template <class T, class SimplePeakType>
RichardsonLucy<T, SimplePeakType>::RichardsonLucy(ScannerDevice const& device, unsigned int const& count)
    : device(device),
      upsampled_length(upsampledLength(count, device.up_sampling)),
      sys_length(upsampledLength(device.size_sys, device.up_sampling)),
      peak_finder{} {
  peak_finder.minimumDifference = minDifference;
  auto const systemWave = upsampledSystemWave(device);
  if (!systemWave) {
    error = noSystemWave;
    return;
  }
  fft_length = sys_length + upsampled_length - 1;
  transforms = std::make_unique<Transforms>(std::span(systemWave->data(), systemWave->size()), fft_length,
                                            device.up_sampling);
  spectrum_bins = transforms->exact.spectrumBins();
}

template <class T, class SimplePeakType>
RichardsonLucy<T, SimplePeakType>::RichardsonLucy(RichardsonLucy&&) noexcept = default;
template <class T, class SimplePeakType>
RichardsonLucy<T, SimplePeakType>& RichardsonLucy<T, SimplePeakType>::operator=(RichardsonLucy&&) noexcept =
    default;
template <class T, class SimplePeakType>
RichardsonLucy<T, SimplePeakType>::~RichardsonLucy() = default;

template <class T, class SimplePeakType>
double (*RichardsonLucy<T, SimplePeakType>::psf_spectrum() const)[2] {
  return transforms ? transforms->exact.psfSpectrum() : nullptr;
}

template <class T, class SimplePeakType>
double (*RichardsonLucy<T, SimplePeakType>::psf_reversed_spectrum() const)[2] {
  return transforms ? transforms->exact.psfReversedSpectrum() : nullptr;
}

template <class T, class SimplePeakType>
void RichardsonLucy<T, SimplePeakType>::convolution(std::vector<double> const& x, double (*kernel)[2],
                                                    std::vector<double>& out) {
  if (transforms) {
    convolve(transforms->exact, kernel, kernelCentre(sys_length), x, out);
  } else {
    std::fill(out.begin(), out.end(), 0.0);
  }
}

template <class T, class SimplePeakType>
int RichardsonLucy<T, SimplePeakType>::apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave) {
  if (!wave || !transforms) {
    return 1;
  }
  std::span<T const> const waveform(samples, samples == nullptr ? 0 : wave->length);
  std::span<T const> const signal = signalSamples(waveform, *wave);
  std::size_t const length = signalLength(signal, device.up_sampling);
  if (length == 0) {
    return 1;
  }
  auto& [exact, fast, observed, estimate, counts] = *transforms;
  ConvolutionWorkspace& workspace = transforms->workspaceFor(length, sys_length);
  InstructionSet const set = workspace.instructionSet;
  observed.resize(length);
  double const maximum = prepareObserved(signal, device.up_sampling, wave->noise, set, observed);
  estimate = observed;
  deconvolve(observed, workspace, kernelCentre(sys_length), estimate, meter);
  counts.resize(length);
  scaleToCounts(maximum, wave->noise, set, estimate, counts);
  findRawPeaks(counts, 0, static_cast<int>(length - 1), wave->noise, wave->peaks, peak_finder);
  mapToSamples(*wave, device.up_sampling);
  wave->testIfAfterPulse();
  removeBadPeaks(wave->peaks);
  return 1;
}

template class RichardsonLucy<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
