#pragma once

namespace FullWaveform::Testing::Tolerance {

/// Position and width of a three-point Gaussian from exact values, in samples. The logarithms are kept in
/// single precision (5e-7 near ln 3000); for widths up to 3 samples this moves the vertex by less than
/// 1e-4 samples, 15 micrometres of range at 1 ns.
inline constexpr double fitSamples = 1e-4;

/// Relative error of the same Gaussian's amplitude: 0.0005 dB.
inline constexpr double fitAmplitudeRelative = 5e-5;

/// Position when the samples were rounded to whole counts, in samples. Half a count of 2000 changes a
/// logarithm by 2.5e-4, and the vertex of a pulse of up to 2.5 samples width by up to its square (6) times
/// that, plus half of that for each neighbour.
inline constexpr double roundedSamples = 2.5e-3;

/// Width of such a pulse, in samples: the same errors change the curvature by up to 4e-4, and the width by
/// its cube (16) times that.
inline constexpr double roundedWidthSamples = 6e-3;

/// Relative error of the amplitude of such a pulse: a few half counts of 2000.
inline constexpr double roundedAmplitudeRelative = 1e-3;

/// Amplitudes in decibels from a fit in single precision.
inline constexpr double decibel = 5e-4;

/// Time of an echo in units of the sampling interval.
inline constexpr double timeIntervals = fitSamples;

/// Position and width of refined Gaussians, in samples. The refinement stops when a step changes the sum of
/// squares or the parameters by less than a thousandth; its last step is quadratically smaller than that
/// where the echoes explain the signal. 0.15 mm of range at 1 ns.
inline constexpr double refinedSamples = 1e-3;

/// Relative error of the amplitude of such a Gaussian: 0.01 dB.
inline constexpr double refinedAmplitudeRelative = 1.15e-3;

/// Position and width of refined Gaussians with a large residual, in samples: convergence is linear there,
/// and the refinement stops a few thousandths short of the minimum.
inline constexpr double largeResidualSamples = 1e-2;

/// Relative error of the amplitude of such a Gaussian.
inline constexpr double largeResidualAmplitudeRelative = 3e-3;

/// Distance of a refinement from the minimum in noisy data, in standard deviations of the parameter.
inline constexpr double refinedStandardDeviations = 0.1;

/// Relative distance from the minimum after many refinements, each started from the previous result.
inline constexpr double repeatedRelative = 1e-7;

/// Relative difference of two minimisers that take the same steps: rounding of exponentials and
/// factorisations after several steps of a problem of moderate condition.
inline constexpr double sameSteps = 1e-9;

/// The same for ill-conditioned problems.
inline constexpr double sameWildSteps = 1e-6;

/// Relative error of a sum of squares that is certified to 11 digits, from parameters of as many digits.
inline constexpr double certifiedDigits = 1e-9;

/// Cosine between the residual and a column of the Jacobian at certified parameters: the last digit of the
/// parameters times the sensitivity to them.
inline constexpr double certifiedMinimum = 1e-8;

/// Central differences with steps of 1e-5: rounding of sums near 1000 counts, divided by the step.
inline constexpr double derivative = 1e-6;

/// Position of an echo in a waveform that was shifted by whole samples: two roundings to single precision
/// below 128 samples.
inline constexpr double shiftedSamples = 1e-5;

/// The same for refined Gaussians: the refinement ends when a step is small relative to the parameters, which
/// include the positions, so that it ends at another distance from the minimum. 5 mm of range at 1 ns.
inline constexpr double shiftedRefinedSamples = 3e-2;

/// Amplitude of such a Gaussian, dB.
inline constexpr double shiftedRefinedDecibel = 5e-2;

}  // namespace FullWaveform::Testing::Tolerance
