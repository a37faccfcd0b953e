#pragma once

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include <fullwaveform/Export.h>

namespace Kestra {

template <std::size_t Rank, class T>
class MultiArray;

/// A one-dimensional array that owns its elements or refers to memory of the caller, which must outlive it.
template <class T>
class MultiArray<1, T> {
 public:
  MultiArray() = default;
  explicit MultiArray(std::vector<T> values) : owned(std::move(values)), elements(owned) {}
  explicit MultiArray(std::span<T const> referenced) : elements(referenced) {}
  MultiArray(MultiArray const& other)
      : owned(other.owned), elements(other.isOwner() ? owned : other.elements) {}
  MultiArray(MultiArray&& other) noexcept : elements(other.elements) {
    owned = std::move(other.owned);  // moving a vector keeps its elements in place, so `elements` stays valid
    other.elements = {};
  }
  MultiArray& operator=(MultiArray other) noexcept {
    owned.swap(other.owned);
    std::swap(elements, other.elements);
    return *this;
  }
  ~MultiArray() = default;

  [[nodiscard]] std::size_t size() const noexcept { return elements.size(); }
  T const& operator[](std::size_t index) const { return elements[index]; }

 private:
  [[nodiscard]] bool isOwner() const noexcept { return !owned.empty(); }

  std::vector<T> owned;
  std::span<T const> elements;
};

}  // namespace Kestra
