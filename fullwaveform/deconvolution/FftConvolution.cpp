#include <fullwaveform/deconvolution/FftConvolution.h>

#include <algorithm>

namespace FullWaveform {

std::ptrdiff_t kernelCentre(std::size_t kernelLength) {
  return static_cast<std::ptrdiff_t>(kernelLength / 2) - 1;
}

std::size_t minTransformLength(std::size_t signalLength, std::size_t kernelLength) {
  // The kernel extends this far after its centre, and one value less before it.
  return signalLength + (kernelLength - kernelLength / 2);
}

IndexRange validRange(std::size_t fftLength, std::ptrdiff_t offset, std::size_t signalLength) {
  auto const length = static_cast<std::ptrdiff_t>(signalLength);
  std::ptrdiff_t const first = std::clamp<std::ptrdiff_t>(-offset, 0, length);
  std::ptrdiff_t const end = std::clamp(static_cast<std::ptrdiff_t>(fftLength) - offset, first, length);
  return {static_cast<std::size_t>(first), static_cast<std::size_t>(end - first)};
}

void convolve(ConvolutionWorkspace& workspace, ConvolutionWorkspace::Complex const* kernel,
              std::ptrdiff_t offset, std::span<double const> x, std::span<double> out) {
  if (!workspace || kernel == nullptr) {
    std::fill(out.begin(), out.end(), 0.0);
    return;
  }
  // Copies x, so that out may overwrite it.
  workspace.load(x);
  auto const [first, count] = validRange(workspace.fftLength(), offset, std::min(x.size(), out.size()));
  std::fill(out.begin(), out.end(), 0.0);
  std::span<double const> const result = workspace.convolveInput(kernel);
  double const scale = 1.0 / static_cast<double>(result.size());
  auto const begin = static_cast<std::size_t>(offset + static_cast<std::ptrdiff_t>(first));
  for (std::size_t i = 0; i < count; ++i) {
    out[first + i] = result[begin + i] * scale;
  }
}

}  // namespace FullWaveform
