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
  [[nodiscard]] std::span<std::int64_t const> of(std::size_t group) const {
    return std::span(items).subspan(begins[group], begins[group + 1] - begins[group]);
  }

 private:
  std::vector<std::size_t> begins;
  std::vector<std::int64_t> items;
};

}  // namespace EchoTable
