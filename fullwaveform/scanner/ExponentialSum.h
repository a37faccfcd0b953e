#pragma once

#include <complex>
#include <span>

namespace FullWaveform {

/// Samples of an exponential sum: wave[i] = Re(sum over k of a_k exp(b_k i dt)).
///
/// @param a     coefficients
/// @param b     exponents in 1/s, as many as coefficients
/// @param dt    time step, s
/// @param wave  receives the values, the first at time 0
void synthesiseSystemWave(std::span<std::complex<double> const> a, std::span<std::complex<double> const> b,
                          double dt, std::span<double> wave);

/// Multiplies every value by the reciprocal of the largest, which becomes 1 to rounding. Not guarded: a wave
/// without positive values is inverted, or gets non-finite values.
void normaliseToMaximum(std::span<double> wave);

}  // namespace FullWaveform
