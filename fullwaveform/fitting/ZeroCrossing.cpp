#include <fullwaveform/fitting/ZeroCrossing.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <fullwaveform/fitting/ClampedIndex.h>
#include <fullwaveform/model/SampleSearch.h>

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

/// The largest value of a range and its index.
struct Largest {
  double value = 0.0;
  int index = 0;
};

/// @param valueAt  value at an index; also called for the neighbours of the range
/// @return the first of the largest values; 0 at 0 if none is above 0
template <class ValueAt>
Largest scan(ValueAt const& valueAt, int first, int last, double noise, double minimumDifference,
             std::list<Peak>& peaks) {
  Largest largest;
  double previous = valueAt(first - 1);
  double current = valueAt(first);
  for (int i = first; i <= last; ++i) {
    double const next = valueAt(i + 1);
    if (current > largest.value) {
      largest = {current, i};
    }
    if (isPeak(previous, current, next, noise, minimumDifference)) {
      peaks.push_back(rawPeak(current, i));
    }
    previous = current;
    current = next;
  }
  return largest;
}

/// A waveform whose maximum is at the edge of its range or too flat still has an echo.
void addLargest(Largest const& largest, double noise, std::list<Peak>& peaks) {
  if (peaks.empty() && noise < largest.value) {
    peaks.push_back(rawPeak(largest.value, largest.index));
  }
}

/// Scans samples several at a time for those higher than their predecessor and not lower than their
/// successor.
void scanSamples(std::span<unsigned short const> samples, int first, int last, unsigned short noise,
                 double minimumDifference, std::list<Peak>& peaks) {
  auto const scanOneByOne = [&](int from, int to) {
    auto const read = [&](int index) {
      return static_cast<int>(samples[static_cast<std::size_t>(clampedIndex(index, samples))]);
    };
    return scan(read, from, to, noise, minimumDifference, peaks);
  };
  // First and last sample of the waveform lack a neighbour.
  int const innerFirst = std::max(first, 1);
  int const innerLast = std::min(last, lastIndex(samples) - 1);
  constexpr auto lanes = static_cast<int>(sampleLanes);
  if (innerLast - innerFirst + 1 < lanes) {
    addLargest(scanOneByOne(first, last), noise, peaks);
    return;
  }
  scanOneByOne(first, innerFirst - 1);
  int i = innerFirst;
  for (; i + lanes <= innerLast + 1; i += lanes) {
    unsigned short const* const centre = samples.data() + i;
    SampleLanes const previous = loadSamples(centre - 1);
    SampleLanes const current = loadSamples(centre);
    SampleLanes const next = loadSamples(centre + 1);
    ChosenLanes maxima((current > previous) & (current >= next) & (current > noise));
    for (; !maxima.empty(); maxima.dropFirst()) {
      auto const lane = static_cast<std::ptrdiff_t>(maxima.first());
      unsigned short const* const maximum = centre + lane;
      if (isPeak(maximum[-1], maximum[0], maximum[1], noise, minimumDifference)) {
        peaks.push_back(rawPeak(maximum[0], i + static_cast<int>(lane)));
      }
    }
  }
  scanOneByOne(i, last);
  if (peaks.empty()) {
    // There is none to be found again: only the largest sample is missing.
    addLargest(scanOneByOne(first, last), noise, peaks);
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
    addLargest(scan(read, from, to, noise, zeroCrossing.minimumDifference, peaks), noise, peaks);
  } else {
    scanSamples(samples, from, to, noise, zeroCrossing.minimumDifference, peaks);
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
  addLargest(scan(read, from, to, noise, minimumDifference, peaks), noise, peaks);
  return true;
}

}  // namespace FullWaveform
