#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <native/csv/CsvLines.h>

#include "Bindings.h"

namespace nb = nanobind;

namespace {

using Array = nb::ndarray<nb::ro, nb::c_contig, nb::device::cpu>;

template <class Value>
std::span<Value const> valuesOf(Array const& array) {
  return {static_cast<Value const*>(array.data()), array.size()};
}

/// A column of numbers, or of texts as rows of bytes.
Csv::Column columnOf(Array const& array) {
  if (array.ndim() == 2 && array.dtype() == nb::dtype<std::uint8_t>()) {
    return Csv::Texts{valuesOf<std::uint8_t>(array), array.shape(1)};
  }
  if (array.ndim() == 1) {
    if (array.dtype() == nb::dtype<double>()) {
      return valuesOf<double>(array);
    }
    if (array.dtype() == nb::dtype<float>()) {
      return valuesOf<float>(array);
    }
    if (array.dtype() == nb::dtype<std::int64_t>()) {
      return valuesOf<std::int64_t>(array);
    }
    if (array.dtype() == nb::dtype<std::uint64_t>()) {
      return valuesOf<std::uint64_t>(array);
    }
    if (array.dtype() == nb::dtype<std::uint16_t>()) {
      return valuesOf<std::uint16_t>(array);
    }
    if (array.dtype() == nb::dtype<std::uint8_t>()) {
      return valuesOf<std::uint8_t>(array);
    }
  }
  throw std::invalid_argument("column of a type that has no text");
}

nb::bytes csvLines(nb::list const& arrays, std::size_t first, std::size_t count) {
  std::vector<Array> kept;
  std::vector<Csv::Column> columns;
  for (nb::handle const array : arrays) {
    kept.push_back(nb::cast<Array>(array));
    if (kept.back().shape(0) != kept.front().shape(0)) {
      throw std::invalid_argument("columns of different lengths");
    }
    columns.push_back(columnOf(kept.back()));
  }
  std::string text;
  {
    nb::gil_scoped_release const release;
    text = Csv::lines(columns, first, count);
  }
  return nb::bytes(text.data(), text.size());
}

}  // namespace

void bindCsv(nb::module_& module) {
  module.def("csv_lines", &csvLines, nb::arg("columns"), nb::arg("first"), nb::arg("count"),
             "Some lines of comma-separated values. Columns are arrays of numbers, or of texts as rows of "
             "bytes that end in zeros.");
}
