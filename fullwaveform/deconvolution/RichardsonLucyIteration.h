#pragma once

#include <cstdint>
#include <span>
#include <vector>

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
                                   unsigned short noise, std::span<double> observed);

/// Working memory of `deconvolve`; grows to the longest signal and stays.
struct DeconvolutionMemory {
  std::vector<double> convolved;
  std::vector<double> ratio;
  std::vector<double> correction;
};

/// Iterative maximum-likelihood deconvolution after Richardson (1972, doi:10.1364/JOSA.62.000055) and Lucy
/// (1974, doi:10.1086/111605), with the system wave as point-spread function.
///
/// Ends when the sum of the correction factors changes by less than 0.02, when it rises after the sixth
/// iteration, or after 40 iterations.
/// @param observed   not negative
/// @param estimate   start on entry, result on return; as long as `observed`
/// @return number of iterations
FULLWAVEFORM_EXPORT int deconvolve(std::span<double const> observed, SystemWaveConvolver convolver,
                                   DeconvolutionMemory& memory, std::span<double> estimate);

/// Scales a deconvolved signal back to counts: its largest value becomes `maximum`, 0 becomes `noise`. The
/// last value does not count for the largest; meant.
/// @param estimate  at least two values; one that is nowhere above 0 gives non-finite values
FULLWAVEFORM_EXPORT void scaleToCounts(double maximum, double noise, std::span<double> estimate);

}  // namespace FullWaveform
