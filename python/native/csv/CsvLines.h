#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Csv {

/// Texts of one length, padded with zero bytes, as they are to stand in the file.
struct Texts {
  std::span<std::uint8_t const> bytes;
  std::size_t length;

  [[nodiscard]] std::size_t size() const { return length == 0 ? 0 : bytes.size() / length; }
  [[nodiscard]] std::string_view operator[](std::size_t row) const;
};

using Column = std::variant<std::span<double const>, std::span<float const>, std::span<std::int64_t const>,
                            std::span<std::uint64_t const>, std::span<std::uint16_t const>,
                            std::span<std::uint8_t const>, Texts>;

/// Lines of comma-separated values, one per row; all columns have as many rows as the first one.
///
/// Numbers have the fewest digits that read back to the same value of their type: from 1e-6 to below 1e10 in
/// decimal notation, else as 1.5e-7 or 1e+10. NaN is "nan", infinities are "inf" and "-inf".
///
/// @param first, count  rows; those beyond the last one are left out
std::string lines(std::vector<Column> const& columns, std::size_t first, std::size_t count);

}  // namespace Csv
