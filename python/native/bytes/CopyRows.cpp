#include <native/bytes/CopyRows.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

void copyRows(std::span<std::uint8_t const> source, std::span<std::int64_t const> starts,
              std::span<std::int64_t const> rows, std::size_t width, std::span<std::uint8_t> target) {
  if (starts.size() != rows.size()) {
    throw std::invalid_argument(std::to_string(starts.size()) + " starts for " + std::to_string(rows.size()) +
                                " rows");
  }
  if (width == 0) {
    return;
  }
  std::size_t const rowCount = target.size() / width;
  for (std::size_t i = 0; i < starts.size(); ++i) {
    // Negative numbers become large ones.
    auto const start = static_cast<std::size_t>(starts[i]);
    auto const row = static_cast<std::size_t>(rows[i]);
    if (width > source.size() || start > source.size() - width || row >= rowCount) {
      throw std::out_of_range("row " + std::to_string(rows[i]) + " of " + std::to_string(rowCount) +
                              " from byte " + std::to_string(starts[i]) + " of " +
                              std::to_string(source.size()));
    }
    std::memcpy(target.data() + row * width, source.data() + start, width);
  }
}
