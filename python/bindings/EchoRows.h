#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <nanobind/ndarray.h>

#include "NumpyColumn.h"

/// Calls `visit(row, first, count)` for the echoes of each row, given the row of each echo; those of a row
/// are consecutive.
template <class Visitor>
void forEachRow(std::span<std::int64_t const> rows, Visitor const& visit) {
  for (std::size_t first = 0, end = 0; first < rows.size(); first = end) {
    while (end < rows.size() && rows[end] == rows[first]) {
      ++end;
    }
    visit(rows[first], first, end - first);
  }
}

/// Echoes of a block, sorted by the row of the block in which they were found, and the samples of those rows.
struct EchoRows {
  using Samples = nanobind::ndarray<unsigned short const, nanobind::ndim<2>, nanobind::device::cpu>;

  Samples const& samples;                     ///< contiguous rows
  InputColumn<std::uint16_t> const& counts;   ///< valid samples of each row
  InputColumn<std::int64_t> const& ofEchoes;  ///< row of each echo, ascending

  [[nodiscard]] std::span<unsigned short const> samplesOf(std::int64_t row) const {
    return {samples.data() + row * samples.stride(0), counts.data()[row]};
  }

  /// Calls `visit(row, first, count)` for the echoes of each row.
  template <class Visitor>
  void forEach(Visitor const& visit) const {
    forEachRow(std::span(ofEchoes.data(), ofEchoes.shape(0)), visit);
  }
};
