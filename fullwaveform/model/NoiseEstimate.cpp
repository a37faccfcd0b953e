#include <fullwaveform/model/NoiseEstimate.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

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

constexpr std::size_t mostForLine = 10;

std::size_t valuesForLine(std::size_t collected) {
  auto const tenth = static_cast<std::size_t>(static_cast<double>(collected) * 0.1);
  return std::clamp<std::size_t>(tenth, 1, mostForLine);
}

bool isSignal(unsigned short sample) {
  return sample > lowestSignal;
}

/// How many samples are signal and at most `highest`.
std::size_t countUpTo(std::span<unsigned short const> samples, unsigned short highest) {
  // Sixteen bits throughout, and one comparison: what is no signal becomes large. So a vector holds many.
  constexpr std::size_t countable = std::numeric_limits<unsigned short>::max();
  constexpr unsigned short least = lowestSignal + 1;
  auto const range = static_cast<unsigned short>(highest - least);
  std::size_t count = 0;
  while (!samples.empty()) {
    unsigned short some = 0;
    for (unsigned short const sample : samples.first(std::min(samples.size(), countable))) {
      some =
          static_cast<unsigned short>(some + (static_cast<unsigned short>(sample - least) <= range ? 1 : 0));
    }
    count += some;
    samples = samples.subspan(std::min(samples.size(), countable));
  }
  return count;
}

/// The signal's value of a rank, counted from 0, in ascending order: sought from the lowest value in steps
/// that double, since the noise floor is near, then halved.
unsigned short valueOfRank(std::span<unsigned short const> samples, std::size_t rank) {
  unsigned low = lowestSignal + 1;
  unsigned high = low;
  for (unsigned step = 1; countUpTo(samples, static_cast<unsigned short>(high)) <= rank; step *= 2) {
    low = high + 1;
    high = std::min<unsigned>(high + step, std::numeric_limits<unsigned short>::max());
  }
  while (low < high) {
    unsigned const middle = (low + high) / 2;
    if (countUpTo(samples, static_cast<unsigned short>(middle)) > rank) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return static_cast<unsigned short>(low);
}

/// The first `count` values of the signal; from the end of the record, when it is given backwards.
template <class Iterator>
std::array<double, mostForLine> firstOfSignal(Iterator sample, std::size_t count) {
  std::array<double, mostForLine> values{};
  for (std::size_t found = 0; found < count; ++sample) {
    if (isSignal(*sample)) {
      values[found++] = *sample;
    }
  }
  return values;
}

}  // namespace

std::uint32_t estimateNoise(std::span<unsigned short const> samples) {
  std::size_t const collected = countUpTo(samples, std::numeric_limits<unsigned short>::max());
  if (collected < 2) {
    return defaultNoise;
  }
  unsigned short const peakRaw = *std::max_element(samples.begin(), samples.end());

  // The flatter end of the record: an echo decays slowly, so the lower end is the quieter one.
  std::size_t const k = valuesForLine(collected);
  bool const beginIsFlatter = samples.back() >= samples.front();
  std::array<double, mostForLine> line =
      beginIsFlatter ? firstOfSignal(samples.begin(), k) : firstOfSignal(samples.rbegin(), k);
  std::span<double> const values(line.data(), k);
  if (!beginIsFlatter) {
    std::reverse(values.begin(), values.end());
  }
  double const spread = spreadAboutLine(values) * 5.0;
  double const noise =
      spread + valueOfRank(samples, static_cast<std::size_t>(0.05 * static_cast<double>(collected)));
  return truncate(peakRaw > saturationLevel ? 2.0 * noise : noise);
}

}  // namespace FullWaveform
