#include <fullwaveform/deconvolution/IterationKernels.h>

#include <algorithm>
#include <cstddef>

namespace FullWaveform::IterationKernels {
namespace {

// NOLINTNEXTLINE(bugprone-macro-parentheses): a file name
#define FULLWAVEFORM_KERNELS "fullwaveform/deconvolution/IterationKernels.inc"
#include <fullwaveform/fitting/ForEachInstructionSet.inc>

/// The version of a kernel for an instruction set.
template <class Kernel>
Kernel* select(InstructionSet set, Kernel* baseline, Kernel* avx2) {
  return set == InstructionSet::Avx2 ? avx2 : baseline;
}

}  // namespace

double maximum(InstructionSet set, std::span<double const> values) {
  return select(set, Baseline::maximum, Avx2::maximum)(values.data(), values.size());
}

void subtractNoise(InstructionSet set, std::span<double> values, double noise, double unit) {
  select(set, Baseline::subtractNoise, Avx2::subtractNoise)(values.data(), noise, unit, values.size());
}

void multiply(InstructionSet set, std::span<double[2]> spectrum, double const (*kernel)[2]) {
  select(set, Baseline::multiply, Avx2::multiply)(spectrum.data(), kernel, spectrum.size());
}

void divide(InstructionSet set, std::span<double const> observed, double const* blurred, double scale,
            double* ratios) {
  select(set, Baseline::divide, Avx2::divide)(observed.data(), blurred, scale, ratios, observed.size());
}

double correct(InstructionSet set, std::span<double> estimate, double const* factors, double scale,
               double* copy) {
  return select(set, Baseline::correct, Avx2::correct)(estimate.data(), factors, scale, copy,
                                                       estimate.size());
}

void toCounts(InstructionSet set, std::span<double const> values, double range, double unit, double noise,
              std::uint16_t* counts) {
  select(set, Baseline::toCounts, Avx2::toCounts)(values.data(), range, unit, noise, counts, values.size());
}

}  // namespace FullWaveform::IterationKernels
