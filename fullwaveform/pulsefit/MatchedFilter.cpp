#include <fullwaveform/pulsefit/MatchedFilter.h>

namespace FullWaveform {
namespace {

constexpr int coreBegin = -5;  // samples from the maximum of the pulse
constexpr int coreEnd = 7;

}  // namespace

MatchedFilter::MatchedFilter(PulseTable const& table, InstructionSet set) : kernels(&pulseKernels(set)) {
  for (int half = 0; half < 2; ++half) {
    taps[half].values = table.samplesAt(-0.5 * half, coreBegin, coreEnd);
    for (double const value : taps[half].values) {
      taps[half].squares.push_back(value * value);
    }
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
  for (std::size_t i = 0; i < size; ++i) {
    weights[margin + i] = fit.weights()[i];
    weighted[margin + i] = fit.weights()[i] * fit.residual()[i];
  }
  Candidate best;
  for (int half = 0; half < 2; ++half) {
    Taps const& pulse = taps[half];
    kernels->correlate(weighted.data(), pulse.values.data(), pulse.values.size(), size, numerator.data());
    kernels->correlate(weights.data(), pulse.squares.data(), pulse.squares.size(), size, denominator.data());
    for (std::size_t i = 1; i + 2 < size + static_cast<std::size_t>(1 - half); ++i) {
      if (numerator[i] > 0.0 && numerator[i] * numerator[i] > best.square * denominator[i]) {
        best = {static_cast<double>(i) + 0.5 * half, numerator[i] / denominator[i],
                numerator[i] * numerator[i] / denominator[i]};
      }
    }
  }
  return best;
}

}  // namespace FullWaveform
