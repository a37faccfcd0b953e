#include <fullwaveform/fitting/ZeroCrossing.h>

#include <algorithm>
#include <cstdint>

#include <fullwaveform/fitting/ClampedIndex.h>

namespace FullWaveform {
namespace {

Peak rawPeak(double amplitude, int index) {
  return {amplitude, static_cast<double>(index), 0.0, RAW, GOOD, 0.0, 0, 0.0F};
}

bool isPeak(double previous, double current, double next, double noise, double minimumDifference) {
  if (current == previous || !(current > noise)) {
    return false;
  }
  double const rise = current - previous;
  double const fall = current - next;
  if (rise < minimumDifference && fall < minimumDifference) {
    return false;
  }
  return rise >= 0.0 && fall >= 0.0;
}

/// @param valueAt  value at an index; also called for the neighbours of the range
template <class ValueAt>
void scan(ValueAt const& valueAt, int first, int last, double noise, double minimumDifference,
          std::list<Peak>& peaks) {
  double largest = 0.0;
  int indexOfLargest = 0;
  double previous = valueAt(first - 1);
  double current = valueAt(first);
  for (int i = first; i <= last; ++i) {
    double const next = valueAt(i + 1);
    if (current > largest) {
      indexOfLargest = i;
      largest = current;
    }
    if (isPeak(previous, current, next, noise, minimumDifference)) {
      peaks.push_back(rawPeak(current, i));
    }
    previous = current;
    current = next;
  }
  // A waveform whose maximum is at the edge of its range or too flat still has an echo.
  if (peaks.empty() && noise < largest) {
    peaks.push_back(rawPeak(largest, indexOfLargest));
  }
}

}  // namespace

double toSixteenBits(double value) {
  constexpr double limit = 2147483648.0;
  // Negated so that NaN gives 0.
  if (!(value > -limit - 1.0 && value < limit)) {
    return 0.0;
  }
  return static_cast<std::uint16_t>(static_cast<std::int32_t>(value));
}

bool findRawPeaks(std::span<unsigned short const> samples, int first, int last, unsigned short noise,
                  std::list<Peak>& peaks, ZeroCrossing const& zeroCrossing) {
  int const from = std::max(first, 0);
  int const to = std::min(last, lastIndex(samples));
  if (from > to) {
    return true;
  }
  if (auto const& accessor = zeroCrossing.sampleAccessor) {
    auto const read = [&](int index) -> double {
      int const nearest = clampedIndex(index, samples);
      return accessor(samples[static_cast<std::size_t>(nearest)], static_cast<double>(nearest));
    };
    scan(read, from, to, noise, zeroCrossing.minimumDifference, peaks);
  } else {
    auto const read = [&](int index) {
      return static_cast<int>(samples[static_cast<std::size_t>(clampedIndex(index, samples))]);
    };
    scan(read, from, to, noise, zeroCrossing.minimumDifference, peaks);
  }
  return true;
}

bool findRawPeaks(std::span<double const> values, int first, int last, double noise, std::list<Peak>& peaks,
                  ValueConversion const& convert, double minimumDifference) {
  int const from = std::max(first, 0);
  int const to = std::min(last, lastIndex(values));
  if (from > to) {
    return true;
  }
  auto const read = [&](int index) -> double {
    double const value = values[static_cast<std::size_t>(clampedIndex(index, values))];
    return convert ? convert(value) : value;
  };
  scan(read, from, to, noise, minimumDifference, peaks);
  return true;
}

}  // namespace FullWaveform
