#include <fullwaveform/pulsefit/MatchedFilter.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {
namespace {

constexpr int coreBegin = -5;  // samples from the maximum of the pulse
constexpr int coreEnd = 7;

}  // namespace

MatchedFilter::MatchedFilter(PulseTable const& table, InstructionSet set)
    : kernels(&pulseKernels(set)), taps(table.samplesAt(0.0, coreBegin, coreEnd)) {
  for (double const value : taps) {
    squaredTaps.push_back(value * value);
  }
}

Candidate MatchedFilter::best(EchoFit const& fit) {
  std::size_t const size = fit.samples();
  constexpr std::size_t margin = static_cast<std::size_t>(-coreBegin);
  std::size_t const padded = size + margin + static_cast<std::size_t>(coreEnd) + 2 * laneCount;
  weighted.assign(padded, 0.0);
  weights.assign(padded, 0.0);
  numerator.resize(padded);
  denominator.resize(padded);
  double const* const fitWeights = fit.weights().data();
  double const* const residual = fit.residual().data();
  std::copy_n(fitWeights, size, weights.begin() + margin);
  for (std::size_t i = 0; i < size; ++i) {
    weighted[margin + i] = fitWeights[i] * residual[i];
  }
  kernels->correlate(weighted.data(), taps.data(), taps.size(), size, numerator.data());
  kernels->correlate(weights.data(), squaredTaps.data(), taps.size(), size, denominator.data());
  std::size_t at = 0;
  double largest = 0.0;
  for (std::size_t i = 1; i + 1 < size; ++i) {
    // With its sign: a branch on the sign of noise is not predictable.
    if (numerator[i] * std::abs(numerator[i]) > largest * denominator[i]) {
      at = i;
      largest = numerator[i] * numerator[i] / denominator[i];
    }
  }
  if (at == 0) {
    return {};
  }
  double const before = squareAt(at - 1);
  double const after = squareAt(at + 1);
  double const curvature = 2.0 * largest - before - after;
  double const shift = curvature > 0.0 ? std::clamp(0.5 * (after - before) / curvature, -0.5, 0.5) : 0.0;
  double const square = largest + 0.25 * shift * (after - before);
  return {static_cast<double>(at) + shift, numerator[at] / denominator[at] * std::sqrt(square / largest),
          square};
}

double MatchedFilter::squareAt(std::size_t sample) const {
  return numerator[sample] > 0.0 ? numerator[sample] * numerator[sample] / denominator[sample] : 0.0;
}

}  // namespace FullWaveform
