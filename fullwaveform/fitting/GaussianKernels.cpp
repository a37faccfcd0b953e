#include <fullwaveform/fitting/GaussianKernels.h>

#include <cmath>
#include <cstdint>

#include <fullwaveform/fitting/Norm.h>

// The kernels are compiled several times: only code that follows the choice of an instruction set is made of
// it, down to the smallest function.
namespace FullWaveform {
namespace {

namespace Baseline {
#define FULLWAVEFORM_VECTOR_BYTES 16
#include <fullwaveform/fitting/Lanes.inc>
//
#include <fullwaveform/fitting/GaussianKernels.inc>
#undef FULLWAVEFORM_VECTOR_BYTES
}  // namespace Baseline

#if defined(__x86_64__)
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace Avx2 {
#define FULLWAVEFORM_VECTOR_BYTES 32
#include <fullwaveform/fitting/Lanes.inc>
//
#include <fullwaveform/fitting/GaussianKernels.inc>
#undef FULLWAVEFORM_VECTOR_BYTES
}  // namespace Avx2
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx512f,avx512dq,avx512vl"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx512f,avx512dq,avx512vl")
#endif
namespace Avx512 {
#define FULLWAVEFORM_VECTOR_BYTES 64
#include <fullwaveform/fitting/Lanes.inc>
//
#include <fullwaveform/fitting/GaussianKernels.inc>
#undef FULLWAVEFORM_VECTOR_BYTES
}  // namespace Avx512
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif

}  // namespace

GaussianKernels const& gaussianKernels([[maybe_unused]] InstructionSet set) noexcept {
#if defined(__x86_64__)
  if (set == InstructionSet::Avx512) {
    return Avx512::kernels;
  }
  if (set == InstructionSet::Avx2) {
    return Avx2::kernels;
  }
#endif
  return Baseline::kernels;
}

double decayOf(double x) noexcept {
  double lanes[laneCount];
  Baseline::store(lanes, Baseline::decay(Baseline::filled(x)));
  return lanes[0];
}

}  // namespace FullWaveform
