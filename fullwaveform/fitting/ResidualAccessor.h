#pragma once

#include <list>

#include <fullwaveform/model/Peak.h>
#include <fullwaveform/model/WavePoints.h>

namespace FullWaveform {

/// Sample accessor of the decomposition: subtracts the noise and the Gaussians found so far from a sample.
class ResidualAccessor {
 public:
  std::list<Peak> peaks;  ///< found in earlier loops; those without a positive width are ignored
  WavePtr wave;           ///< supplies the noise
  int loop = 0;           ///< loop of the decomposition that uses the accessor, from 0

  /// @return the residual in whole counts, at least 1, so that its logarithm is defined; 0 when amplitude or
  ///         position of a peak is NaN
  unsigned short operator()(unsigned short const& sample, double index) const;
};

}  // namespace FullWaveform
