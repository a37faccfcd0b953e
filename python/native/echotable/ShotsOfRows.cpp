#include <native/echotable/ShotsOfRows.h>

#include <algorithm>
#include <numeric>

namespace EchoTable {

ShotsOfRows::ShotsOfRows(std::span<double const> times) : shots(times.size()) {
  std::vector<std::int64_t> rows(times.size());
  std::iota(rows.begin(), rows.end(), 0);
  auto const timeOf = [times](std::int64_t row) { return times[static_cast<std::size_t>(row)]; };
  if (!std::is_sorted(times.begin(), times.end())) {
    std::stable_sort(rows.begin(), rows.end(),
                     [&](std::int64_t a, std::int64_t b) { return timeOf(a) < timeOf(b); });
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    shotCount += i == 0 || timeOf(rows[i]) != timeOf(rows[i - 1]) ? 1 : 0;
    shots[static_cast<std::size_t>(rows[i])] = static_cast<std::int64_t>(shotCount) - 1;
  }
}

std::vector<std::int64_t> ShotsOfRows::of(std::span<std::int64_t const> rows) const {
  std::vector<std::int64_t> found(rows.size());
  std::transform(rows.begin(), rows.end(), found.begin(),
                 [this](std::int64_t row) { return shots[static_cast<std::size_t>(row)]; });
  return found;
}

}  // namespace EchoTable
