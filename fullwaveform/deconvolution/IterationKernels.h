#pragma once

#include <cstdint>
#include <span>

#include <fullwaveform/fitting/InstructionSet.h>

/// Loops of a deconvolution between its transforms, vectorised; bit-identical with every instruction set.
///
/// All arrays of a call are as long as the first one; any two are either identical or disjoint.
namespace FullWaveform::IterationKernels {

/// Maximum of values >= 0; 0 without values.
double maximum(InstructionSet set, std::span<double const> values);

/// values[i] = max(values[i] - noise, 0) / unit
void subtractNoise(InstructionSet set, std::span<double> values, double noise, double unit);

/// spectrum[k] *= kernel[k], complex values
void multiply(InstructionSet set, std::span<double[2]> spectrum, double const (*kernel)[2]);

/// ratios[i] = observed[i] / (blurred[i] * scale), and 0 where that divisor is exactly 0
void divide(InstructionSet set, std::span<double const> observed, double const* blurred, double scale,
            double* ratios);

/// copy[i] = estimate[i] *= factors[i] * scale
///
/// @return sum of the scaled factors
double correct(InstructionSet set, std::span<double> estimate, double const* factors, double scale,
               double* copy);

/// counts[i] = values[i] * range / unit + noise: the low 16 bits of the integer part, 0 if that exceeds
/// 32 bits.
void toCounts(InstructionSet set, std::span<double const> values, double range, double unit, double noise,
              std::uint16_t* counts);

}  // namespace FullWaveform::IterationKernels
