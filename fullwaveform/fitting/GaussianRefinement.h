#pragma once

#include <span>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Fits a sum of Gaussians to a stretch of signal by least squares, from a start.
///
/// Levenberg-Marquardt as in MINPACK (More 1978, doi:10.1007/BFb0067700), stopped early: at most 20
/// evaluations of the sum, relative tolerances of 0.001. That is far finer than the noise of a record and
/// coarse for exact arithmetic.
///
/// @param signal      samples less the noise level, counts
/// @param first       sample index of the first value of `signal`
/// @param parameters  the start, as in `GaussianSum.h`; receives the result with the signs that the
///                    minimiser left. Unchanged when there are fewer samples than parameters or when one of
///                    the parameters is not finite.
/// @return how often the sum was evaluated; 0 when the fit was refused
FULLWAVEFORM_EXPORT int refineGaussians(std::span<double const> signal, int first,
                                        std::span<double> parameters);

}  // namespace FullWaveform
