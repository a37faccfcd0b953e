#include <fullwaveform/fitting/leastsquares/GaussianKernels.h>

#include <cmath>
#include <cstdint>

#include <fullwaveform/fitting/leastsquares/Norm.h>

namespace FullWaveform {
namespace {

#define FULLWAVEFORM_KERNELS "fullwaveform/fitting/leastsquares/GaussianKernels.inc"
#include <fullwaveform/fitting/ForEachInstructionSet.inc>

}  // namespace

GaussianKernels const& gaussianKernels(InstructionSet set) noexcept {
  return set == InstructionSet::Avx2 ? Avx2::kernels : Baseline::kernels;
}

double decayOf(double x) noexcept {
  return Baseline::decay(Baseline::Vector{} + x)[0];
}

}  // namespace FullWaveform
