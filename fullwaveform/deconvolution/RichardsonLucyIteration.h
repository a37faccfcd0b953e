#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/FftConvolution.h>

namespace FullWaveform {

/// The part of a record between two samples, interpolated linearly, without its noise and scaled to 1.
///
/// @param samples   first to last sample of the range in counts, both included; at least two
/// @param steps     values per sample, at least 1
/// @param noise     counts, subtracted; what lies below is cut to 0
/// @param observed  (samples - 1) * steps values; a signal that is nowhere above the noise stays 0
/// @return largest value in counts: before the noise is subtracted where the signal is interpolated, after it
///         where it is not (one step); meant
FULLWAVEFORM_EXPORT double observe(std::span<unsigned short const> samples, std::uint32_t steps,
                                   unsigned short noise, InstructionSet set, std::span<double> observed);

/// Iterative maximum-likelihood deconvolution after Richardson (1972, doi:10.1364/JOSA.62.000055) and Lucy
/// (1974, doi:10.1086/111605), with the system wave as point-spread function.
///
/// Ends when the sum of the correction factors changes by less than 0.02, when it rises after the sixth
/// iteration, or after 40 iterations.
/// @param observed   not negative
/// @param workspace  holds the system wave; not empty. Overwritten.
/// @param offset     position in the full convolution of the value that belongs to the first one, see
/// `centreOf`
/// @param estimate   start on entry, result on return; as long as `observed`
/// @return number of iterations
FULLWAVEFORM_EXPORT int deconvolve(std::span<double const> observed, ConvolutionWorkspace& workspace,
                                   std::ptrdiff_t offset, std::span<double> estimate);

/// Scales a deconvolved signal back to whole counts: its largest value becomes `maximum`, 0 becomes `noise`.
/// The last value does not count for the largest; meant.
///
/// @param estimate  at least two values; one that is nowhere above 0 gives counts of 0
/// @param counts    as long as `estimate`: the low 16 bits of the whole part, 0 for what does not fit 32 bits
FULLWAVEFORM_EXPORT void scaleToCounts(double maximum, double noise, InstructionSet set,
                                       std::span<double const> estimate, std::span<unsigned short> counts);

}  // namespace FullWaveform
