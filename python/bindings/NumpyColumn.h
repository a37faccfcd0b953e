#pragma once

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <fullwaveform/host/MultiArray.h>

/// Hands a column to NumPy without copying it: the array owns the vector from now on.
template <class T>
nanobind::object numpyColumn(std::vector<T>&& values) {
  auto* owned = new std::vector<T>(std::move(values));
  nanobind::capsule owner(owned, [](void* memory) noexcept { delete static_cast<std::vector<T>*>(memory); });
  return nanobind::cast(nanobind::ndarray<nanobind::numpy, T>(owned->data(), {owned->size()}, owner));
}

/// A column that Python hands in, read where it is.
template <class T>
using Column = nanobind::ndarray<T const, nanobind::ndim<1>, nanobind::c_contig, nanobind::device::cpu>;

/// The same for the library; the column must outlive it.
template <class T>
Kestra::MultiArray<1, T> columnView(Column<T> const& column) {
  return Kestra::MultiArray<1, T>(std::span<T const>(column.data(), column.shape(0)));
}
