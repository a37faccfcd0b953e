#include <fullwaveform/pulsefit/ThreePointBatch.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>

#include <fullwaveform/fitting/LaneCount.h>

namespace FullWaveform {
namespace {

constexpr double roundingOfFit = 0.01;      // samples; the fit computes in single precision
constexpr double surroundingsSpread = 0.2;  // of the curvature, by baseline and neighbours, relative
constexpr double notDetermined = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();
constexpr double squaredFwhmPerSigma = 8.0 * std::numbers::ln2;

#define FULLWAVEFORM_KERNELS "fullwaveform/pulsefit/ThreePointBatch.inc"
#include <fullwaveform/fitting/ForEachInstructionSet.inc>

}  // namespace

ThreePointKernel threePointKernel(InstructionSet set) noexcept {
  return set == InstructionSet::Avx2 ? Avx2::computeVariances : Baseline::computeVariances;
}

}  // namespace FullWaveform
