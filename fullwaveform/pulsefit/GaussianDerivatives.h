#pragma once

#include <cstddef>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/PulseKernels.h>

namespace FullWaveform {

/// A Gaussian on the samples of a waveform.
struct GaussianPulse {
  double position;   ///< samples after the first one in question
  double amplitude;  ///< counts
  double sigma;      ///< samples, above 0
};

/// Sets the columns to the derivatives of a Gaussian by amplitude (`value`), position (`byLag`) and standard
/// deviation (`byVariance`) at `count` samples; writes whole lanes, 0 behind the samples.
void differentiateGaussian(GaussianPulse const& pulse, std::size_t count, PulseColumns const& columns,
                           InstructionSet set);

}  // namespace FullWaveform
