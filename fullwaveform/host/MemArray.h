#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fullwaveform/host/ReferenceBase.h>

namespace Kestra {

template <std::size_t Rank, class T>
class MemArray;

/// A two-dimensional block in row-major order that owns its elements or refers to memory of the caller.
///
/// Memory of the caller must outlive the array. If there is a row accessor, rows are read through it, so that
/// they need not be contiguous or may be computed on demand: each call returns the first of `columns()`
/// elements, valid until the next call, or nullptr for an unavailable row.
template <class T>
class MemArray<2, T> : public Holdex::ReferenceBase<MemArray<2, T>> {
 public:
  using Shape = std::array<std::size_t, 2>;
  using RowAccessor = std::function<T const*(std::size_t row)>;

  /// Owns rows x columns elements: `values`, truncated or filled up with zeros to that number.
  /// @throws std::length_error if the product is too large
  MemArray(Shape rowsAndColumns, std::vector<T> values) : shape(rowsAndColumns), owned(std::move(values)) {
    if (shape[1] != 0 && shape[0] > owned.max_size() / shape[1]) {
      throw std::length_error("MemArray: rows times columns exceed the maximum size");
    }
    owned.resize(shape[0] * shape[1]);
    first = owned.data();
  }
  /// Refers to rows x columns elements of the caller.
  MemArray(Shape rowsAndColumns, T const* elements) : shape(rowsAndColumns), first(elements) {}
  /// Reads rows only through the accessor.
  MemArray(Shape rowsAndColumns, RowAccessor rowAccessor)
      : shape(rowsAndColumns), accessor(std::move(rowAccessor)) {}

  [[nodiscard]] std::size_t rows() const noexcept { return shape[0]; }
  [[nodiscard]] std::size_t columns() const noexcept { return shape[1]; }
  [[nodiscard]] bool hasAccessor() const noexcept { return static_cast<bool>(accessor); }
  [[nodiscard]] RowAccessor const& rowAccessor() const noexcept { return accessor; }
  /// Contiguous rows; nullptr if they are available through the accessor only.
  [[nodiscard]] T const* storage() const noexcept { return first; }

  void setRowAccessor(RowAccessor rowAccessor) { accessor = std::move(rowAccessor); }

 private:
  Shape shape;
  std::vector<T> owned;
  T const* first = nullptr;
  RowAccessor accessor;
};

}  // namespace Kestra
