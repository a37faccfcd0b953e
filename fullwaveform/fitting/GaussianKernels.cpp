#include <fullwaveform/fitting/GaussianKernels.h>

#include <cmath>
#include <cstdint>

#include <fullwaveform/fitting/Norm.h>

namespace FullWaveform {
namespace {

#define FULLWAVEFORM_KERNELS <fullwaveform/fitting/GaussianKernels.inc>
#include <fullwaveform/fitting/ForEachInstructionSet.inc>

}  // namespace

GaussianKernels const& gaussianKernels(InstructionSet set) noexcept {
  return set == InstructionSet::Avx2 ? Avx2::kernels : Baseline::kernels;
}

double decayOf(double x) noexcept {
  double lanes[laneCount];
  Baseline::store(lanes, Baseline::decay(Baseline::filled(x)));
  return lanes[0];
}

}  // namespace FullWaveform
