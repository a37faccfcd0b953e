#include <fullwaveform/model/NoiseEstimate.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <vector>

namespace FullWaveform {
namespace {

constexpr std::uint32_t defaultNoise = 180;
constexpr unsigned short lowestSignal = 10;
constexpr double saturationLevel = 1800.0;

/// Largest minus smallest residual of the values about their least-squares line.
double spreadAboutLine(std::span<double const> values) {
  double sumX = 0.0;
  double sumY = 0.0;
  double sumXX = 0.0;
  double sumXY = 0.0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    auto const x = static_cast<double>(i);
    sumX += x;
    sumY += values[i];
    sumXX += x * x;
    sumXY += x * values[i];
  }
  auto const count = static_cast<double>(values.size());
  double const slope = (count * sumXY - sumX * sumY) / (count * sumXX - sumX * sumX);
  double const intercept = (sumY - slope * sumX) / count;
  double largest = -10000.0;
  double smallest = 10000.0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    double const residual = values[i] - intercept - slope * static_cast<double>(i);
    // Written so that a residual that is not a number takes both places.
    largest = largest > residual ? largest : residual;
    smallest = smallest < residual ? smallest : residual;
  }
  return largest - smallest;
}

/// Truncation to 32 bits; what does not fit becomes the integer-indefinite value of x86.
std::uint32_t truncate(double value) {
  constexpr double lowest = std::numeric_limits<std::int32_t>::min();
  constexpr double beyond = -lowest;
  if (!(value > lowest - 1.0 && value < beyond)) {
    return 0x80000000U;
  }
  return static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
}

std::size_t valuesForLine(std::size_t collected) {
  auto const tenth = static_cast<std::size_t>(static_cast<double>(collected) * 0.1);
  return std::clamp<std::size_t>(tenth, 1, 10);
}

}  // namespace

std::uint32_t estimateNoise(std::span<unsigned short const> samples) {
  if (samples.empty()) {
    return defaultNoise;
  }
  std::vector<double> collected;
  collected.reserve(samples.size());
  std::copy_if(samples.begin(), samples.end(), std::back_inserter(collected),
               [](unsigned short sample) { return sample > lowestSignal; });
  if (collected.size() < 2) {
    return defaultNoise;
  }
  double const peakRaw =
      std::max<double>(samples.front(), *std::max_element(collected.begin(), collected.end()));

  // The flatter end of the record: an echo decays slowly, so the lower end is the quieter one.
  std::span<double const> const values(collected);
  std::size_t const k = valuesForLine(values.size());
  double const spread =
      spreadAboutLine(samples.back() >= samples.front() ? values.first(k) : values.last(k)) * 5.0;

  auto const rank = static_cast<std::ptrdiff_t>(0.05 * static_cast<double>(collected.size()));
  std::nth_element(collected.begin(), collected.begin() + rank, collected.end());
  double const noise = spread + collected[static_cast<std::size_t>(rank)];
  return truncate(peakRaw > saturationLevel ? 2.0 * noise : noise);
}

}  // namespace FullWaveform
