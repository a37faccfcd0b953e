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

/// A two-dimensional block in row-major order that owns its elements or looks at foreign memory.
///
/// Foreign memory must outlive the array. With a row accessor, rows are read through it (rows that lie apart
/// in memory, or that are made when asked for); each call returns the first of `columns()` elements, valid
/// until the next call, or nullptr for a row that cannot be had.
template <class T>
class MemArray<2, T> : public Holdex::ReferenceBase<MemArray<2, T>> {
 public:
  using Shape = std::array<std::size_t, 2>;
  using RowAccessor = std::function<T const*(std::size_t row)>;

  /// Owns rows x columns elements: `values`, filled up with zeros or cut where they are not as many.
  /// @throws std::length_error when the product does not fit
  MemArray(Shape rowsAndColumns, std::vector<T> values) : shape(rowsAndColumns), owned(std::move(values)) {
    if (shape[1] != 0 && shape[0] > owned.max_size() / shape[1]) {
      throw std::length_error("MemArray: rows times columns do not fit");
    }
    owned.resize(shape[0] * shape[1]);
    first = owned.data();
  }
  /// Looks at rows x columns elements of foreign memory.
  MemArray(Shape rowsAndColumns, T const* foreign) : shape(rowsAndColumns), first(foreign) {}
  /// Reads rows only through the accessor.
  MemArray(Shape rowsAndColumns, RowAccessor rowAccessor)
      : shape(rowsAndColumns), accessor(std::move(rowAccessor)) {}

  [[nodiscard]] std::size_t rows() const noexcept { return shape[0]; }
  [[nodiscard]] std::size_t columns() const noexcept { return shape[1]; }
  [[nodiscard]] bool hasAccessor() const noexcept { return static_cast<bool>(accessor); }
  [[nodiscard]] RowAccessor const& rowAccessor() const noexcept { return accessor; }
  /// Direct storage, nullptr when the rows are only had through the accessor.
  [[nodiscard]] T const* storage() const noexcept { return first; }

  void setRowAccessor(RowAccessor rowAccessor) { accessor = std::move(rowAccessor); }

 private:
  Shape shape;
  std::vector<T> owned;
  T const* first = nullptr;
  RowAccessor accessor;
};

}  // namespace Kestra
