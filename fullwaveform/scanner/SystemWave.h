#pragma once

#include <complex>
#include <filesystem>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>

namespace FullWaveform {

/// Samples of an exponential sum: wave[i] = Re(sum over k of a_k exp(b_k i dt)).
///
/// @param a     coefficients
/// @param b     exponents in 1/s, as many as coefficients
/// @param dt    step, s
/// @param wave  receives the values; the first stands at time 0
FULLWAVEFORM_EXPORT void synthesiseSystemWave(std::span<std::complex<double> const> a,
                                              std::span<std::complex<double> const> b, double dt,
                                              std::span<double> wave);

/// Multiplies every value by the reciprocal of the largest, which becomes 1 to rounding. Not guarded: a wave
/// that is nowhere above 0 is turned over, or gets non-finite values.
FULLWAVEFORM_EXPORT void normaliseToMaximum(std::span<double> wave);

/// The shape that one ideal echo leaves in a record, sampled and scaled to a maximum of 1.
///
/// @param a        coefficients of the scanner's exponential sum
/// @param b        its exponents, 1/s
/// @param dt       step, s
/// @param length   number of values
/// @param plotDir  directory for a plot of the wave, "SysWave.pdf"; empty: no plot
/// @return the wave, or an empty pointer when the step is not above 0, a table is missing or empty, the
///         tables differ in length or no value is wanted; console messages say which
FULLWAVEFORM_EXPORT Holdex::StrongPtr<Holdex::Chunk<double>> createNormalizedSysWave(
    Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>> const& a,
    Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>> const& b, double const& dt,
    unsigned int const& length, std::filesystem::path const& plotDir);

}  // namespace FullWaveform
