#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace EchoTable {

/// The shots of a block in ascending order of time.
class ShotsOfRows {
 public:
  /// @param times  of the shot of each row, s
  explicit ShotsOfRows(std::span<double const> times);

  /// Number of shots.
  [[nodiscard]] std::size_t count() const { return shotCount; }

  /// The shot of each row.
  [[nodiscard]] std::vector<std::int64_t> const& ofRows() const { return shots; }

  /// The shot of each of the given rows.
  [[nodiscard]] std::vector<std::int64_t> of(std::span<std::int64_t const> rows) const;

 private:
  std::vector<std::int64_t> shots;
  std::size_t shotCount = 0;
};

}  // namespace EchoTable
