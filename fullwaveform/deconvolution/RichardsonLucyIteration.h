#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// Interpolates samples linearly, subtracts the noise and scales the signal to a maximum of 1.
///
/// @param samples   first to last sample of the range in counts, both included; at least two
/// @param steps     values per sampling interval, at least 1
/// @param noise     counts; values below it become 0
/// @param observed  (samples.size() - 1) * steps values; all 0 when none is above the noise
/// @return maximum of the interpolated values in counts, before the noise is subtracted; with one step (no
///         interpolation) after it is subtracted
double prepareObserved(std::span<unsigned short const> samples, std::uint32_t steps, unsigned short noise,
                       InstructionSet set, std::span<double> observed);

/// Iterative maximum-likelihood deconvolution of Richardson (1972, doi:10.1364/JOSA.62.000055) and Lucy
/// (1974, doi:10.1086/111605), with the system wave as point-spread function.
///
/// Stops when the sum of the correction factors changes by less than 0.02, when it rises after the sixth
/// iteration, or after 40 iterations; these limits are this library's.
/// @param observed   values >= 0
/// @param workspace  of the system wave, not empty; its buffers are overwritten
/// @param offset     index in the full convolution of the value that belongs to observed[0], see
///                   `kernelCentre`
/// @param estimate   start values, replaced by the result; as long as `observed`
/// @param meter      counts the work if it is not null
/// @return number of iterations
int deconvolve(std::span<double const> observed, ConvolutionWorkspace& workspace, std::ptrdiff_t offset,
               std::span<double> estimate, WorkMeter* meter = nullptr);

/// Maximum of a deconvolved signal, by which it is scaled to counts.
///
/// The last value is intentionally left out: light of an echo after the end of the signal accumulates there.
/// @param estimate  at least two values
double scalingMaximum(InstructionSet set, std::span<double const> estimate);

/// Scales a deconvolved signal to whole counts: the value `scalingMaximum` becomes `maximum`, 0 becomes
/// `noise`.
///
/// @param estimate  at least two values; without a positive one all counts are 0
/// @param counts    as long as `estimate`: the low 16 bits of the integer part, 0 if that exceeds 32 bits
void scaleToCounts(double maximum, double noise, InstructionSet set, std::span<double const> estimate,
                   std::span<unsigned short> counts);

}  // namespace FullWaveform
