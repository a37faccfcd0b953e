#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

/// Hands a column to NumPy without copying it: the array owns the vector from now on.
template <class T>
nanobind::object numpyColumn(std::vector<T>&& values) {
  auto* owned = new std::vector<T>(std::move(values));
  nanobind::capsule owner(owned, [](void* memory) noexcept { delete static_cast<std::vector<T>*>(memory); });
  return nanobind::cast(nanobind::ndarray<nanobind::numpy, T>(owned->data(), {owned->size()}, owner));
}
