#pragma once

#include <cstddef>
#include <span>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// A sum of Gaussians as a flat run of parameters: amplitude (counts), position and standard deviation
/// (sample indices) of the first, of the second, and so on.
inline constexpr std::size_t parametersPerGaussian = 3;

/// Value at `x` of the Gaussian of height 1, exp(-(x - position)^2 / (2 width^2)).
FULLWAVEFORM_EXPORT double gaussianAt(double x, double position, double width);

/// What a sum of Gaussians has too much at every sample, in counts; amplitudes and positions enter with their
/// absolute values.
///
/// @param parameters  a multiple of `parametersPerGaussian` values
/// @param first       sample index of the first value of `signal`
/// @param signal      samples less the noise level, counts
/// @param residual    receives one value per sample: sum - signal
FULLWAVEFORM_EXPORT void gaussianSumResidual(std::span<double const> parameters, int first,
                                             std::span<double const> signal, std::span<double> residual);

/// Derivatives of the residual with respect to the parameters.
///
/// The column of an amplitude is that of its absolute value: it has no sign factor, and neither has the
/// column of a position. This is meant; a refinement that has crossed zero is not led back.
///
/// @param first     sample index of the first row
/// @param jacobian  receives (samples x parameters) values, column by column; its size gives the number of
///                  samples
FULLWAVEFORM_EXPORT void gaussianSumJacobian(std::span<double const> parameters, int first,
                                             std::span<double> jacobian);

}  // namespace FullWaveform
