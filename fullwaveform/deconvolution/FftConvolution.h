#pragma once

#include <cstddef>
#include <span>

#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>

namespace FullWaveform {

/// Index in the full convolution of the value that belongs to the first input value: the middle of a kernel
/// of `kernelLength` values, -1 for a kernel of one value.
std::ptrdiff_t kernelCentre(std::size_t kernelLength);

/// Shortest transform length for which the values that belong to a signal are free of wrap-around; the ends
/// of the full convolution, which are not read, may overlap.
std::size_t minTransformLength(std::size_t signalLength, std::size_t kernelLength);

/// `count` consecutive indices from `first` on.
struct IndexRange {
  std::size_t first;
  std::size_t count;
};

/// Indices of a signal for which a transform holds results: all of them when it was planned for a signal of
/// that length.
///
/// @param offset  index in the full convolution of the first result, see `kernelCentre`
IndexRange validRange(std::size_t fftLength, std::ptrdiff_t offset, std::size_t signalLength);

/// Convolution by FFT, cropped so that out[i] belongs to x[i].
///
/// @param workspace  with transforms of at least `minTransformLength`; shorter ones wrap around
/// @param kernel     spectrum of `workspace.spectrumBins()` values
/// @param offset     index in the full convolution of out[0], see `kernelCentre`
/// @param x          input; values after the transform length are ignored
/// @param out        result, 0 where the transform holds no value; may be the same memory as x
///
/// An empty workspace or a null kernel gives zeros.
void convolve(ConvolutionWorkspace& workspace, ConvolutionWorkspace::Complex const* kernel,
              std::ptrdiff_t offset, std::span<double const> x, std::span<double> out);

}  // namespace FullWaveform
