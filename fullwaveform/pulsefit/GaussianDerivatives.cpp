#include <fullwaveform/pulsefit/GaussianDerivatives.h>

#include <cstdint>

#include <fullwaveform/fitting/LaneCount.h>

namespace FullWaveform {
namespace {

#define FULLWAVEFORM_KERNELS "fullwaveform/pulsefit/GaussianDerivatives.inc"
#include <fullwaveform/fitting/ForEachInstructionSet.inc>

}  // namespace

void differentiateGaussian(GaussianPulse const& pulse, std::size_t count, PulseColumns const& columns,
                           InstructionSet set) {
  auto const differentiate = set == InstructionSet::Avx2 ? Avx2::differentiate : Baseline::differentiate;
  differentiate(pulse, count, columns);
}

}  // namespace FullWaveform
