#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include <native/las/PointRecords.h>

namespace Las {

/// What is known of points after they were all visited once.
class PointSurvey {
 public:
  explicit PointSurvey(PointLayout const& layout) : layout(layout) {}

  /// Visit the next points of the file.
  ///
  /// @throws std::invalid_argument unless the bytes are whole records
  void add(std::span<std::uint8_t const> bytes);

  /// Whether GPS times never decrease and none is NaN.
  [[nodiscard]] bool isAscending() const { return ascending; }
  /// Whether all points have the same GPS time but several packets.
  [[nodiscard]] bool isWithoutTimes() const { return ascending && oneTime && smallestOffset < largestOffset; }
  /// That points refer to, ascending, without 0.
  [[nodiscard]] std::vector<std::int64_t> descriptors() const;
  /// Pairs of descriptors, the smaller first, that consecutive points of equal time refer to.
  [[nodiscard]] std::vector<std::pair<int, int>> pairsOfShots() const;

 private:
  static constexpr std::size_t descriptorCount = 256;

  PointLayout layout;
  bool ascending = true;
  bool oneTime = true;
  bool isFirst = true;
  double lastTime = 0.0;
  std::uint8_t lastDescriptor = 0;
  std::uint64_t smallestOffset = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t largestOffset = 0;
  std::bitset<descriptorCount> used;
  std::bitset<descriptorCount * descriptorCount> pairs;
};

}  // namespace Las
