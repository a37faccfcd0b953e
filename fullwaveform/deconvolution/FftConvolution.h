#pragma once

#include <cstddef>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>

namespace FullWaveform {

/// Position in the full convolution of the value that belongs to the first input value: the middle of a
/// kernel of `kernelLength` values, -1 for a kernel of one.
FULLWAVEFORM_EXPORT std::ptrdiff_t centreOf(std::size_t kernelLength);

/// Length of the shortest transform that is enough for the values that belong to a signal: the ends of the
/// full convolution may overlap where nothing is read.
FULLWAVEFORM_EXPORT std::size_t leastTransformLength(std::size_t signalLength, std::size_t kernelLength);

/// Values of a signal, `count` of them from `first` on.
struct Stretch {
  std::size_t first;
  std::size_t count;
};

/// The values of a signal that a transform has results for, all of them when it was planned for such a
/// signal.
///
/// @param fftLength     length of the transform
/// @param offset        position in the full convolution of the first result, see `centreOf`
/// @param signalLength  values of the signal
FULLWAVEFORM_EXPORT Stretch reachOf(std::size_t fftLength, std::ptrdiff_t offset, std::size_t signalLength);

/// Convolution by FFT, cut so that out[i] belongs to x[i].
///
/// @param workspace  its transform must be as long as `leastTransformLength` for the result to be the plain
///                   convolution; otherwise the ends overlap in it
/// @param kernel     spectrum, as many values as the workspace has bins
/// @param offset     position in the full convolution of out[0], see `centreOf`
/// @param x          input; what lies behind the transform's length is left out
/// @param out        result; 0 where the transform holds no value
///
/// An empty workspace or a null kernel gives zeros. x and out may be the same.
FULLWAVEFORM_EXPORT void convolve(ConvolutionWorkspace& workspace,
                                  ConvolutionWorkspace::Complex const* kernel, std::ptrdiff_t offset,
                                  std::span<double const> x, std::span<double> out);

}  // namespace FullWaveform
