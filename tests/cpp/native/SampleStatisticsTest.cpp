#include <cstdint>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <native/samples/SampleStatistics.h>

namespace {

using Samples = std::vector<std::uint16_t>;

TEST(SampleStatistics, CountsValidSamplesOnly) {
  SampleStatistics statistics;
  statistics.add(Samples{5, 5, 7, 65535, 0, 0, 9, 9, 9}, Samples{3, 1, 0}, 3);
  statistics.add(Samples{5}, Samples{1}, 1);
  std::vector<std::int64_t> const values = statistics.valueCounts();
  EXPECT_EQ(values[5], 3);
  EXPECT_EQ(values[7], 1);
  EXPECT_EQ(values[65535], 1);
  EXPECT_EQ(values[0] + values[9], 0);
  EXPECT_EQ(statistics.maximumCounts()[7], 1);
  EXPECT_EQ(statistics.maximumCounts()[65535], 1);
  EXPECT_EQ(statistics.maximumCounts()[5], 1);
}

TEST(SampleStatistics, PlateausAreThoseAtTheLargestValueOfAll) {
  SampleStatistics statistics;
  statistics.add(Samples{80, 80, 1, 80, 1, 80, 1, 80, 80}, Samples{3, 3, 3}, 3);
  EXPECT_EQ(statistics.plateaus(), 2);
  statistics.add(Samples{81, 0, 81}, Samples{3}, 3);
  EXPECT_EQ(statistics.plateaus(), 0);
  statistics.add(Samples{81, 81, 81, 80, 80, 80}, Samples{3, 3}, 3);
  EXPECT_EQ(statistics.plateaus(), 1);
}

TEST(SampleStatistics, RefusesCountsThatExceedTheRow) {
  SampleStatistics statistics;
  EXPECT_THROW(statistics.add(Samples{1, 2}, Samples{3}, 2), std::invalid_argument);
  EXPECT_THROW(statistics.add(Samples{1, 2, 3}, Samples{1}, 2), std::invalid_argument);
  statistics.add({}, {}, 0);
  EXPECT_EQ(statistics.valueCounts()[1], 0);
}

}  // namespace
