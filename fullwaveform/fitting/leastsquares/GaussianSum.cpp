#include <fullwaveform/fitting/leastsquares/GaussianSum.h>

#include <algorithm>
#include <cstdint>

#include <fullwaveform/fitting/leastsquares/GaussianKernels.h>

namespace FullWaveform {

double gaussianAt(double x, double position, double width) {
  return decayOf(0.5 * (position - x) * (x - position) / (width * width));
}

void GaussianSum::setSignal(std::span<double const> values, int first, std::size_t parameters) {
  constexpr std::size_t lineBytes = 64;
  count = values.size();
  parameterCount = parameters;
  start = static_cast<double>(first);
  columnStride = (count + laneCount - 1) / laneCount * laneCount;
  std::size_t const needed = (parameters + 2) * columnStride + laneCount;
  if (memory.size() < needed) {
    memory.resize(needed);
    auto const misaligned = reinterpret_cast<std::uintptr_t>(memory.data()) % lineBytes;
    aligned = misaligned == 0 ? 0 : (lineBytes - misaligned) / sizeof(double);
  }
  std::fill(std::copy(values.begin(), values.end(), signal()), signal() + columnStride, 0.0);
}

GaussianColumns GaussianSum::columnsFrom(std::size_t parameter) {
  return {signal(), column(parameter), columnStride, start, start + static_cast<double>(count)};
}

double GaussianSum::evaluate(std::span<double const> parameters) {
  shapes.clear();
  for (std::size_t p = 0; p < parameterCount; p += parametersPerGaussian) {
    shapes.emplace_back(parameters.data() + p);
  }
  return gaussianKernels(instructionSet).evaluate(columnsFrom(0), shapes.data(), shapes.size());
}

void GaussianSum::differentiate(std::span<double> squares) {
  for (std::size_t g = 0; g < shapes.size(); ++g) {
    std::size_t const p = g * parametersPerGaussian;
    gaussianKernels(instructionSet).differentiate(columnsFrom(p), shapes[g], squares.data() + p);
  }
}

}  // namespace FullWaveform
