#include <fullwaveform/deconvolution/FftConvolution.h>

#include <algorithm>

namespace FullWaveform {

std::ptrdiff_t centreOf(std::size_t kernelLength) {
  return static_cast<std::ptrdiff_t>(kernelLength / 2) - 1;
}

void convolve(ConvolutionWorkspace& workspace, ConvolutionWorkspace::Complex const* kernel,
              std::ptrdiff_t offset, std::span<double const> x, std::span<double> out) {
  if (!workspace || kernel == nullptr) {
    std::fill(out.begin(), out.end(), 0.0);
    return;
  }
  std::span<double const> const result = workspace.convolveAround(x, kernel);
  double const scale = 1.0 / static_cast<double>(result.size());
  auto const held = static_cast<std::ptrdiff_t>(result.size());
  auto const wanted = static_cast<std::ptrdiff_t>(std::min(x.size(), out.size()));
  auto const all = static_cast<std::ptrdiff_t>(out.size());
  std::ptrdiff_t const first = std::clamp<std::ptrdiff_t>(-offset, 0, all);
  std::ptrdiff_t const behind = std::clamp(std::min(wanted, held - offset), first, all);
  // x has been read by now: out may stand in its place.
  std::fill(out.begin(), out.begin() + first, 0.0);
  std::fill(out.begin() + behind, out.end(), 0.0);
  for (std::ptrdiff_t i = first; i < behind; ++i) {
    out[static_cast<std::size_t>(i)] = result[static_cast<std::size_t>(offset + i)] * scale;
  }
}

SystemWaveConvolver::SystemWaveConvolver(ConvolutionWorkspace& workspace, std::size_t kernelLength)
    : workspace(&workspace), offset(centreOf(kernelLength)) {}

void SystemWaveConvolver::blur(std::span<double const> x, std::span<double> out) {
  convolve(*workspace, workspace->psfSpectrum(), offset, x, out);
}

void SystemWaveConvolver::blurReversed(std::span<double const> x, std::span<double> out) {
  convolve(*workspace, workspace->psfReversedSpectrum(), offset, x, out);
}

}  // namespace FullWaveform
