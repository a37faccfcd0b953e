#include <fullwaveform/model/NoiseEstimate.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

namespace FullWaveform {
namespace {

constexpr std::uint32_t defaultNoise = 180;
constexpr unsigned short minSignal = 11;  // counts
constexpr double saturationLevel = 1800.0;

/// Maximum minus minimum of the residuals about the least-squares line.
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
  double max = -10000.0;
  double min = 10000.0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    double const residual = values[i] - intercept - slope * static_cast<double>(i);
    // The order of the comparisons lets a NaN residual replace both.
    max = max > residual ? max : residual;
    min = min < residual ? min : residual;
  }
  return max - min;
}

/// Truncates to 32 bits; NaN and values out of range become the integer-indefinite value of x86.
std::uint32_t truncate(double value) {
  constexpr double min = std::numeric_limits<std::int32_t>::min();
  constexpr double limit = -min;
  if (!(value > min - 1.0 && value < limit)) {
    return 0x80000000U;
  }
  return static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
}

constexpr std::size_t maxForLine = 10;

std::size_t valuesForLine(std::size_t collected) {
  auto const tenth = static_cast<std::size_t>(static_cast<double>(collected) * 0.1);
  return std::clamp<std::size_t>(tenth, 1, maxForLine);
}

bool isSignal(unsigned short sample) {
  return sample >= minSignal;
}

/// Number of signal samples that are at most `max`.
std::size_t countUpTo(std::span<unsigned short const> samples, unsigned short max) {
  // 16-bit arithmetic and one comparison, so that the loop is vectorised: samples below the signal wrap to
  // large values.
  constexpr std::size_t countable = std::numeric_limits<unsigned short>::max();
  auto const range = static_cast<unsigned short>(max - minSignal);
  std::size_t count = 0;
  while (!samples.empty()) {
    unsigned short partial = 0;
    for (unsigned short const sample : samples.first(std::min(samples.size(), countable))) {
      partial = static_cast<unsigned short>(
          partial + (static_cast<unsigned short>(sample - minSignal) <= range ? 1 : 0));
    }
    count += partial;
    samples = samples.subspan(std::min(samples.size(), countable));
  }
  return count;
}

/// Signal sample of a rank, counted from 0 in ascending order. Searches upwards from the minimum in doubling
/// steps, because the baseline is close to it, and then bisects.
unsigned short valueOfRank(std::span<unsigned short const> samples, std::size_t rank) {
  unsigned low = minSignal;
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

/// The first `count` signal samples from an iterator on.
template <class Iterator>
std::array<double, maxForLine> firstSignalSamples(Iterator sample, std::size_t count) {
  std::array<double, maxForLine> values{};
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

  // The flatter end of the waveform: an echo decays slowly, so that the lower end has less signal.
  std::size_t const k = valuesForLine(collected);
  bool const beginIsFlatter = samples.back() >= samples.front();
  std::array<double, maxForLine> line =
      beginIsFlatter ? firstSignalSamples(samples.begin(), k) : firstSignalSamples(samples.rbegin(), k);
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
