#include <fullwaveform/host/DataRange.h>

#include <algorithm>
#include <cstddef>
#include <limits>

namespace Kestra {

template <class T>
DataRange<T>::DataRange(std::span<T const> values)
    : low(std::numeric_limits<T>::infinity()), high(-std::numeric_limits<T>::infinity()) {
  auto const count = static_cast<std::ptrdiff_t>(values.size());
#pragma omp parallel
  {
    T threadLow = std::numeric_limits<T>::infinity();
    T threadHigh = -threadLow;
#pragma omp for nowait
    for (std::ptrdiff_t i = 0; i < count; ++i) {
      T const value = values[static_cast<std::size_t>(i)];
      // A comparison with NaN is false and leaves the range unchanged.
      threadLow = value < threadLow ? value : threadLow;
      threadHigh = value > threadHigh ? value : threadHigh;
    }
#pragma omp critical(KestraDataRange)
    {
      low = std::min(low, threadLow);
      high = std::max(high, threadHigh);
    }
  }
  if (low > high) {
    low = 0;
    high = 0;
  }
}

template DataRange<double>::DataRange(std::span<double const> values);

}  // namespace Kestra
