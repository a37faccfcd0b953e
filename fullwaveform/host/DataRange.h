#pragma once

#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/ReferenceBase.h>

namespace Kestra {

/// Smallest and largest value of a series, for the axis of a plot.
template <class T>
class FULLWAVEFORM_EXPORT DataRange : public Holdex::ReferenceBase<DataRange<T>> {
 public:
  DataRange(T smallest, T largest) noexcept : low(smallest), high(largest) {}
  /// Searches the values on several threads. NaN is ignored; without any other value the range is [0, 0].
  explicit DataRange(std::span<T const> values);

  [[nodiscard]] T minimum() const noexcept { return low; }
  [[nodiscard]] T maximum() const noexcept { return high; }

 private:
  T low;
  T high;
};

extern template DataRange<double>::DataRange(std::span<double const> values);

}  // namespace Kestra
