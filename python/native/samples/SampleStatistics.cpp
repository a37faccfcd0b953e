#include <native/samples/SampleStatistics.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>

void SampleStatistics::add(std::span<std::uint16_t const> samples, std::span<std::uint16_t const> counts,
                           std::size_t width) {
  if (samples.size() != counts.size() * width) {
    throw std::invalid_argument(std::to_string(samples.size()) + " samples for " +
                                std::to_string(counts.size()) + " rows of " + std::to_string(width));
  }
  std::uint16_t const longest =
      counts.empty() ? std::uint16_t{0} : *std::max_element(counts.begin(), counts.end());
  if (longest > width) {
    throw std::invalid_argument("count " + std::to_string(longest) + " exceeds the row length " +
                                std::to_string(width));
  }
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (counts[i] > 0) {
      addRow(samples.subspan(i * width, counts[i]));
    }
  }
}

void SampleStatistics::addRow(std::span<std::uint16_t const> row) {
  std::size_t i = 0;
  for (; i + tableCount <= row.size(); i += tableCount) {
    for (std::size_t table = 0; table < tableCount; ++table) {
      ++tables[table][row[i + table]];
    }
  }
  for (; i < row.size(); ++i) {
    ++tables[0][row[i]];
  }
  std::uint16_t highest = 0;
  for (std::uint16_t const value : row) {
    highest = std::max(highest, value);
  }
  ++maxima[highest];
  if (highest > largest) {
    largest = highest;
    plateauCount = 0;
  }
  if (highest == largest) {
    auto const plateau = std::adjacent_find(
        row.begin(), row.end(),
        [this](std::uint16_t one, std::uint16_t next) { return one == largest && next == largest; });
    plateauCount += static_cast<std::int64_t>(plateau != row.end());
  }
}

std::vector<std::int64_t> SampleStatistics::valueCounts() const {
  std::vector<std::int64_t> counts(values);
  for (Table const& table : tables) {
    std::transform(counts.begin(), counts.end(), table.begin(), counts.begin(), std::plus<>());
  }
  return counts;
}
