#include <fullwaveform/pulsefit/PulseKernels.h>

#include <cstdint>

namespace FullWaveform {
namespace {

#define FULLWAVEFORM_KERNELS "fullwaveform/pulsefit/PulseKernels.inc"
#include <fullwaveform/fitting/ForEachInstructionSet.inc>

}  // namespace

PulseKernels const& pulseKernels(InstructionSet set) noexcept {
  return set == InstructionSet::Avx2 ? Avx2::kernels : Baseline::kernels;
}

}  // namespace FullWaveform
