#pragma once

#include <array>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// The Gaussian through three samples.
struct ThreePointGauss {
  float amplitude;  ///< counts
  float vertex;     ///< samples, counted from the left sample
  float std;        ///< standard deviation, samples
};

/// Fits Gauss curves through three neighbouring samples: a parabola through their logarithms (Guo 2011,
/// doi:10.1109/MSP.2011.941846, gives the unweighted form). Single precision throughout, apart from the
/// logarithms and the exponential.
class FULLWAVEFORM_EXPORT ThreePointGaussFitter {
 public:
  ThreePointGaussFitter();

  /// @param left, centre, right  samples at x = 0, 1, 2, in counts, each > 0
  /// @return the Gaussian; a flat or hollow triple gives non-finite values, and nothing is thrown
  ThreePointGauss fit(double left, double centre, double right);

  /// Gives an echo the amplitude, position and width of the Gaussian through its sample and the neighbours,
  /// and the type `GAUSS_3POINTS`.
  ///
  /// @param samples   the whole record; neighbours outside it are read as its nearest sample. An empty record
  ///                  leaves the echo as it is.
  /// @param accessor  value to use for a sample, empty: as it stands
  void fitPeak(std::span<unsigned short const> samples, ZeroCrossing::SampleAccessor const& accessor,
               Peak& peak);

 private:
  std::array<float, 9> design;         ///< rows (1, x, x^2) at x = 0, 1, 2, column by column
  std::array<float, 3> rightHandSide;  ///< logarithms of the samples
};

}  // namespace FullWaveform
