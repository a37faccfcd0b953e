#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// Counts the samples of waveforms by their value, and the waveforms by their largest sample.
class SampleStatistics {
 public:
  static constexpr std::size_t values = 65536;

  /// Add waveforms.
  ///
  /// @param samples  rows of `width` values, one after the other
  /// @param counts  valid samples of each row; rows without any are skipped
  /// @throws std::invalid_argument if a count exceeds the width, or the sizes do not agree; nothing is added
  /// then
  void add(std::span<std::uint16_t const> samples, std::span<std::uint16_t const> counts, std::size_t width);

  /// How many samples have each value.
  [[nodiscard]] std::vector<std::int64_t> valueCounts() const;
  /// How many waveforms have each value as their largest sample.
  [[nodiscard]] std::vector<std::int64_t> const& maximumCounts() const { return maxima; }
  /// Waveforms with two consecutive samples of the largest value of all, which clipping produces and noise
  /// rarely does.
  [[nodiscard]] std::int64_t plateaus() const { return plateauCount; }

 private:
  void addRow(std::span<std::uint16_t const> row);

  // Neighbouring samples are often equal; in one table the second would wait for the first.
  static constexpr std::size_t tableCount = 4;
  using Table = std::vector<std::int64_t>;
  std::array<Table, tableCount> tables{Table(values), Table(values), Table(values), Table(values)};
  std::vector<std::int64_t> maxima = std::vector<std::int64_t>(values);
  std::uint16_t largest = 0;
  std::int64_t plateauCount = 0;
};
