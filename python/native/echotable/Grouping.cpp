#include <native/echotable/Grouping.h>

namespace EchoTable {

Grouping::Grouping(std::span<std::int64_t const> groups, std::size_t count)
    : begins(count + 1), items(groups.size()) {
  for (std::int64_t const group : groups) {
    ++begins[static_cast<std::size_t>(group) + 1];
  }
  for (std::size_t group = 0; group < count; ++group) {
    begins[group + 1] += begins[group];
  }
  std::vector<std::size_t> next(begins.begin(), begins.end() - 1);
  for (std::size_t item = 0; item < groups.size(); ++item) {
    items[next[static_cast<std::size_t>(groups[item])]++] = static_cast<std::int64_t>(item);
  }
}

}  // namespace EchoTable
