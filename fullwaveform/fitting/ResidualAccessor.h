#pragma once

#include <list>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>
#include <fullwaveform/model/WavePoints.h>

namespace FullWaveform {

/// Sample accessor of the decomposition: what noise and the echoes found so far leave of a sample.
class FULLWAVEFORM_EXPORT ResidualAccessor {
 public:
  std::list<Peak> peaks;  ///< echoes found in earlier loops; those without a positive width do not count
  WavePtr wave;           ///< supplies the noise level
  int loop = 0;           ///< the loop that reads through it, from 0

  /// @return the rest in whole counts, at least 1, so that it has a logarithm; 0 when an echo is not a number
  unsigned short operator()(unsigned short const& sample, double index) const;
};

}  // namespace FullWaveform
