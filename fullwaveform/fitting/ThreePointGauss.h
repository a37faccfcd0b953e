#pragma once

#include <span>

#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// Smallest rise or fall next to a maximum that makes it a peak in both Gauss methods, counts.
inline constexpr double minGaussDifference = 2.0;
/// Smallest difference of last and first index of a range in which both Gauss methods search for peaks.
inline constexpr int minGaussRange = 3;

/// The Gaussian through three samples.
struct ThreePointGauss {
  float amplitude;  ///< counts
  float vertex;     ///< samples, counted from the left sample
  float std;        ///< standard deviation, samples
};

/// Fits a Gaussian through three neighbouring samples: a parabola through their logarithms (Guo 2011,
/// doi:10.1109/MSP.2011.941846, gives the unweighted form). Single precision, except for the logarithms and
/// the exponential.
///
/// @param left, centre, right  samples at x = 0, 1, 2, in counts, each > 0
/// @return the Gaussian. Three equal samples give NaN throughout; a concave-up triple gives a NaN width.
ThreePointGauss gaussThroughThreeSamples(double left, double centre, double right);

/// Sets amplitude, position and width of a peak to those of the Gaussian through its sample and the
/// neighbours, and its type to `GAUSS_3POINTS`.
///
/// @param samples   the waveform; neighbours outside it are replaced by its nearest sample. The peak is left
///                  unchanged when the waveform is empty.
/// @param accessor  returns the value to use for a sample; if empty, the samples themselves are used
void fitThreePointGauss(std::span<unsigned short const> samples, ZeroCrossing::SampleAccessor const& accessor,
                        Peak& peak);

}  // namespace FullWaveform
