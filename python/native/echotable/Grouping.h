#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace EchoTable {

/// Items by the group to which each belongs; those of a group keep their order.
class Grouping {
 public:
  /// @param groups  group of each item, below `count`
  Grouping(std::span<std::int64_t const> groups, std::size_t count);

  /// Indices of the items of a group, ascending.
  [[nodiscard]] std::span<std::int64_t const> of(std::size_t group) const { return of(group, group + 1); }

  /// Those of the groups from `first` to before `end`, group by group.
  [[nodiscard]] std::span<std::int64_t const> of(std::size_t first, std::size_t end) const {
    return std::span(items).subspan(begins[first], begins[end] - begins[first]);
  }

 private:
  std::vector<std::size_t> begins;
  std::vector<std::int64_t> items;
};

}  // namespace EchoTable
