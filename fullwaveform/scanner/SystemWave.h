#pragma once

#include <complex>
#include <filesystem>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>

namespace FullWaveform {

/// Response of the scanner to a point target, sampled and scaled to a maximum of 1.
///
/// @param a        coefficients of the scanner's exponential sum
/// @param b        its exponents, 1/s
/// @param dt       time step, s
/// @param length   number of values
/// @param plotDir  directory for a plot of the wave, "SysWave.pdf"; empty: no plot
/// @return the wave, or an empty pointer, with the reason on the console, if
///         the step is not positive, a table
///         is missing or empty, the tables differ in length, or the length is 0
FULLWAVEFORM_EXPORT Holdex::StrongPtr<Holdex::Chunk<double>> createNormalizedSysWave(
    Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>> const& a,
    Holdex::StrongPtr<Holdex::Chunk<std::complex<double>>> const& b, double const& dt,
    unsigned int const& length, std::filesystem::path const& plotDir);

}  // namespace FullWaveform
