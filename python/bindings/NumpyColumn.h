#pragma once

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <fullwaveform/host/MultiArray.h>

#include "ColumnTable.h"

/// Passes a column to NumPy without a copy: the array owns the vector.
///
/// @tparam Value  type of the elements in NumPy, as large as those of the vector
template <class Value, class Stored, class Allocator>
nanobind::object numpyColumn(std::vector<Stored, Allocator>&& values) {
  static_assert(sizeof(Value) == sizeof(Stored));
  using Values = std::vector<Stored, Allocator>;
  auto* owned = new Values(std::move(values));
  nanobind::capsule owner(owned, [](void* memory) noexcept { delete static_cast<Values*>(memory); });
  return nanobind::cast(nanobind::ndarray<nanobind::numpy, Value>(owned->data(), {owned->size()}, owner));
}

/// All columns of a table by name; the table is empty afterwards.
template <class Record, auto const& columns>
nanobind::dict numpyColumns(ColumnTable<Record, columns>& table) {
  nanobind::dict dict;
  table.forEach([&]<class Column>(Column const& column, auto& values) {
    dict[column.name] = numpyColumn<ColumnValue<Column, Record>>(std::move(values));
  });
  return dict;
}

/// NumPy's name for the type of every column of a table, by the name of the column.
template <class Record, auto const& columns>
nanobind::dict columnTypes(ColumnTable<Record, columns> table) {
  nanobind::dict dict;
  table.forEach([&]<class Column>(Column const& column, auto const& /*values*/) {
    dict[column.name] = numpyTypeName<ColumnValue<Column, Record>>();
  });
  return dict;
}

/// A column passed by Python, read without a copy.
template <class T>
using InputColumn = nanobind::ndarray<T const, nanobind::ndim<1>, nanobind::c_contig, nanobind::device::cpu>;

/// View of such a column for the library; the column must outlive it.
template <class T>
Kestra::MultiArray<1, T> columnView(InputColumn<T> const& column) {
  return Kestra::MultiArray<1, T>(std::span<T const>(column.data(), column.shape(0)));
}
