#pragma once

#include <cstdint>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/InstructionSet.h>

/// The passes of a deconvolution between its transforms, each over whole arrays and with the same digits on
/// every instruction set. Arrays of one call are as long as its first, and do not overlap unless they are the
/// same.
namespace FullWaveform::IterationKernels {

/// The largest of values that are not below 0; 0 of none.
FULLWAVEFORM_EXPORT double largest(InstructionSet set, std::span<double const> values);

/// Takes the noise off every value, cuts what lies below it to 0, and divides by `unit`.
FULLWAVEFORM_EXPORT void subtractNoise(InstructionSet set, std::span<double> values, double noise,
                                       double unit);

/// Product of two spectra, in place of the first.
FULLWAVEFORM_EXPORT void multiply(InstructionSet set, std::span<double[2]> spectrum,
                                  double const (*kernel)[2]);

/// Observed values over blurred ones, 0 where the blurred one is exactly 0.
///
/// @param blurred  to be multiplied with `scale` first
FULLWAVEFORM_EXPORT void divide(InstructionSet set, std::span<double const> observed, double const* blurred,
                                double scale, double* ratios);

/// Multiplies the estimate with the correction factors; returns the sum of the factors.
///
/// @param factors  to be multiplied with `scale` first
/// @param copy     receives the estimate too
FULLWAVEFORM_EXPORT double correct(InstructionSet set, std::span<double> estimate, double const* factors,
                                   double scale, double* copy);

/// Scales values to counts, value * range / largest + noise, and keeps of each what the peak finder compares:
/// the low 16 bits of its whole part, 0 where that does not fit 32 bits.
FULLWAVEFORM_EXPORT void toCounts(InstructionSet set, std::span<double const> values, double range,
                                  double largest, double noise, std::uint16_t* counts);

}  // namespace FullWaveform::IterationKernels
