#include <fullwaveform/host/MemArray.h>

#include <cstddef>
#include <vector>

#include <fullwaveform/host/StrongPtr.h>
#include <gtest/gtest.h>

namespace Kestra {
namespace {

using Block = MemArray<2, unsigned short>;
using Values = std::vector<unsigned short>;

TEST(MemArray, OwnerKeepsItsElements) {
  Values values{1, 2, 3, 4, 5, 6};
  Block const block({2, 3}, values);
  values.assign(6, 0);
  EXPECT_EQ(block.rows(), 2U);
  EXPECT_EQ(block.columns(), 3U);
  EXPECT_EQ(Values(block.storage(), block.storage() + 6), (Values{1, 2, 3, 4, 5, 6}));
  EXPECT_FALSE(block.hasAccessor());
}

TEST(MemArray, OwnerFillsMissingElementsWithZero) {
  Block const block({2, 2}, Values{7, 8, 9});
  EXPECT_EQ(Values(block.storage(), block.storage() + 4), (Values{7, 8, 9, 0}));
}

TEST(MemArray, ViewRefersToMemoryOfTheCaller) {
  Values external{1, 2, 3, 4};
  Block const block({2, 2}, external.data());
  EXPECT_EQ(block.storage(), external.data());
  external[3] = 44;
  EXPECT_EQ(block.storage()[3], 44);
}

TEST(MemArray, AccessorProvidesRowsWithoutStorage) {
  std::vector<Values> const rows{{1, 2}, {3, 4}};
  Block const block({2, 2}, Block::RowAccessor([&](std::size_t row) { return rows[row].data(); }));
  EXPECT_TRUE(block.hasAccessor());
  EXPECT_EQ(block.storage(), nullptr);
  EXPECT_EQ(block.rowAccessor()(1)[0], 3);
}

TEST(MemArray, AccessorCanBeSetLater) {
  Values const other{9};
  Block block({1, 1}, Values{1});
  block.setRowAccessor([&](std::size_t) { return other.data(); });
  EXPECT_TRUE(block.hasAccessor());
  EXPECT_EQ(block.rowAccessor()(0)[0], 9);
}

TEST(MemArray, IsSharedThroughStrongPointers) {
  Holdex::StrongPtr<Block> first(new Block({1, 1}, Values{5}));
  Holdex::StrongPtr<Block> const second = first;
  first.reset();
  EXPECT_EQ(second->storage()[0], 5);
}

}  // namespace
}  // namespace Kestra
