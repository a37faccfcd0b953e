#include <native/las/PointSurvey.h>

#include <algorithm>

namespace Las {

void PointSurvey::add(std::span<std::uint8_t const> bytes) {
  PointRecords const points(bytes, layout);
  for (std::size_t i = 0; i < points.count(); ++i) {
    Point const point = points[i];
    double const time = point.time();
    std::uint8_t const descriptor = point.descriptor();
    if (isFirst) {
      isFirst = false;
      ascending = time == time;
    } else {
      bool const isSame = time == lastTime;
      oneTime = oneTime && isSame;
      ascending = ascending && time >= lastTime;  // false for NaN
      if (isSame && descriptor != lastDescriptor) {
        auto const [low, high] = std::minmax(descriptor, lastDescriptor);
        pairs.set(low * descriptorCount + high);
      }
    }
    lastTime = time;
    lastDescriptor = descriptor;
    used.set(descriptor);
    if (descriptor > 0) {
      smallestOffset = std::min(smallestOffset, point.packetOffset());
      largestOffset = std::max(largestOffset, point.packetOffset());
    }
  }
}

std::vector<std::int64_t> PointSurvey::descriptors() const {
  std::vector<std::int64_t> found;
  for (std::size_t descriptor = 1; descriptor < descriptorCount; ++descriptor) {
    if (used[descriptor]) {
      found.push_back(static_cast<std::int64_t>(descriptor));
    }
  }
  return found;
}

std::vector<std::pair<int, int>> PointSurvey::pairsOfShots() const {
  std::vector<std::pair<int, int>> found;
  for (std::size_t low = 1; low < descriptorCount; ++low) {
    for (std::size_t high = low + 1; high < descriptorCount; ++high) {
      if (pairs[low * descriptorCount + high]) {
        found.emplace_back(static_cast<int>(low), static_cast<int>(high));
      }
    }
  }
  return found;
}

}  // namespace Las
