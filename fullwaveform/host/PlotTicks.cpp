#include <fullwaveform/host/PlotTicks.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace OrvikPDF {
namespace {

constexpr double largestEnd = 8e307;  // twice this, and a margin, is still finite
constexpr double leastExtent = 1e-290;
constexpr double leastRelativeExtent = 1e-14;  // some fifty steps of double precision
constexpr unsigned int mostIntervalsOfAll = 50;
/// Share of a step by which a tick may lie outside the range: rounding of the division.
constexpr double slack = 1e-9;

/// A step of factor * 10^power, factor 1, 2 or 5.
struct Step {
  std::int64_t factor;
  int power;
};

/// count * 10^power, correctly rounded as long as 10^|power| is exact.
double scaled(double count, int power) {
  return power < 0 ? count / std::pow(10.0, -power) : count * std::pow(10.0, power);
}

/// The smallest round step that is not below `least`.
Step roundStep(double least) {
  int const power = static_cast<int>(std::floor(std::log10(least)));
  for (std::int64_t const factor : {1, 2, 5}) {
    if (scaled(static_cast<double>(factor), power) >= least * (1.0 - slack)) {
      return {factor, power};
    }
  }
  return {1, power + 1};
}

/// What is subtracted in the labels of a range that is far from 0 for its extent, in units of the step's
/// power of ten: the last round number before the range that leaves them short.
std::int64_t labelOffset(AxisRange range, Step step, std::int64_t firstNumber) {
  constexpr double farFromZero = 1e4;  // extents
  double const extent = range.high - range.low;
  double const distance = std::min(std::abs(range.low), std::abs(range.high));
  bool const isFar = (range.low < 0.0) == (range.high < 0.0) && distance > farFromZero * extent;
  std::int64_t multiple = 10;
  while (static_cast<double>(multiple) < scaled(extent, -step.power)) {
    multiple *= 10;
  }
  return isFar ? firstNumber / multiple * multiple : 0;
}

/// Power of ten, a multiple of 3, taken out of labels that would be long.
int labelExponent(double largest) {
  if (largest == 0.0) {
    return 0;
  }
  int const magnitude = static_cast<int>(std::floor(std::log10(largest)));
  bool const isShort = magnitude >= -3 && magnitude <= 4;
  return isShort ? 0 : 3 * static_cast<int>(std::floor(magnitude / 3.0));
}

/// Plain decimal text of number * 10^power.
std::string decimalText(std::int64_t number, int power) {
  std::string digits = std::to_string(std::abs(number));
  if (power >= 0) {
    digits += number == 0 ? "" : std::string(static_cast<std::size_t>(power), '0');
  } else {
    auto const decimals = static_cast<std::size_t>(-power);
    if (digits.size() <= decimals) {
      digits.insert(0, decimals + 1 - digits.size(), '0');
    }
    digits.insert(digits.size() - decimals, 1, '.');
  }
  return (number < 0 ? "-" : "") + digits;
}

std::string withoutTrailingZeros(std::string text) {
  if (text.find('.') != std::string::npos) {
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
      text.pop_back();
    }
  }
  return text;
}

}  // namespace

AxisRange drawableRange(double low, double high) {
  if (std::isnan(low) || std::isnan(high)) {
    return {};
  }
  low = std::clamp(low, -largestEnd, largestEnd);
  high = std::clamp(high, -largestEnd, largestEnd);
  if (low > high) {
    std::swap(low, high);
  }
  double const size = std::max(std::abs(low), std::abs(high));
  if (high - low >= std::max(leastRelativeExtent * size, leastExtent)) {
    return {low, high};
  }
  double const apart = size < leastExtent ? 1.0 : std::max(0.1 * size, leastExtent);
  return {low - apart, high + apart};
}

AxisRange withMargin(AxisRange range, double fraction) {
  double const margin = (range.high - range.low) * fraction;
  return {range.low - margin, range.high + margin};
}

double placeInRange(double value, AxisRange range) {
  // Halves: the difference of huge values of both signs stays finite.
  return (0.5 * value - 0.5 * range.low) / (0.5 * range.high - 0.5 * range.low);
}

AxisTicks findTicks(AxisRange range, unsigned int mostIntervals) {
  unsigned int const intervals = std::clamp(mostIntervals, 1U, mostIntervalsOfAll);
  Step const step = roundStep((range.high - range.low) / intervals);
  double const size = scaled(static_cast<double>(step.factor), step.power);
  auto const first = static_cast<std::int64_t>(std::ceil(range.low / size - slack));
  auto const last = static_cast<std::int64_t>(std::floor(range.high / size + slack));

  std::int64_t const offset = labelOffset(range, step, first * step.factor);
  double const offsetSize = scaled(static_cast<double>(offset), step.power);

  AxisTicks ticks;
  ticks.exponent =
      labelExponent(std::max(std::abs(range.low - offsetSize), std::abs(range.high - offsetSize)));
  ticks.offset = offset == 0 ? "" : withoutTrailingZeros(decimalText(offset, step.power));
  for (std::int64_t i = first; i <= last; ++i) {
    std::int64_t const number = i * step.factor;
    ticks.positions.push_back(scaled(static_cast<double>(number), step.power));
    ticks.labels.push_back(decimalText(number - offset, step.power - ticks.exponent));
  }
  return ticks;
}

}  // namespace OrvikPDF
