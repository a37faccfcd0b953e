#include <fullwaveform/host/Chunk.h>

#include <complex>
#include <cstddef>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/StrongPtr.h>
#include <gtest/gtest.h>

namespace Holdex {
namespace {

TEST(Chunk, ElementsStartAtZeroOrEmpty) {
  Chunk<double> const numbers(std::size_t{3});
  EXPECT_EQ(numbers.size(), 3U);
  EXPECT_EQ(std::vector<double>(numbers.begin(), numbers.end()), (std::vector<double>{0.0, 0.0, 0.0}));
  Chunk<std::string> const texts(std::size_t{2});
  EXPECT_EQ(texts[1], "");
  Chunk<std::complex<double>> const table(std::size_t{1});
  EXPECT_EQ(table[0], std::complex<double>(0.0, 0.0));
}

TEST(Chunk, KeepsTheGivenValues) {
  Chunk<float> chunk(std::vector<float>{1.5F, 2.5F});
  EXPECT_FALSE(chunk.empty());
  EXPECT_EQ(chunk.data()[1], 2.5F);
  chunk[1] = 3.5F;
  EXPECT_EQ(std::as_const(chunk)[1], 3.5F);
  EXPECT_EQ(std::accumulate(chunk.begin(), chunk.end(), 0.0F), 5.0F);
}

TEST(Chunk, WithoutElementsIsEmpty) {
  EXPECT_TRUE(Chunk<double>(std::size_t{0}).empty());
  EXPECT_TRUE(Chunk<double>(std::vector<double>{}).empty());
}

TEST(Chunk, MemoryTotalCountsTheBytesOfExistingChunks) {
  std::size_t const before = ChunkBase::memoryTotal();
  {
    Chunk<double> const ten(std::size_t{10});
    EXPECT_EQ(ChunkBase::memoryTotal(), before + 80);
    Chunk<std::complex<double>> const three(std::vector<std::complex<double>>(3));
    EXPECT_EQ(ChunkBase::memoryTotal(), before + 80 + 48);
    Chunk<float> const five(std::size_t{5});
    EXPECT_EQ(ChunkBase::memoryTotal(), before + 80 + 48 + 20);
  }
  EXPECT_EQ(ChunkBase::memoryTotal(), before);
}

TEST(Chunk, LastPointerSubtractsTheBytesFromTheMemoryTotal) {
  std::size_t const before = ChunkBase::memoryTotal();
  StrongPtr<ChunkBase> first = makeStrong<Chunk<double>>(std::size_t{4});
  StrongPtr<ChunkBase> second = first;
  first.reset();
  EXPECT_EQ(ChunkBase::memoryTotal(), before + 32);
  second.reset();
  EXPECT_EQ(ChunkBase::memoryTotal(), before);
}

}  // namespace
}  // namespace Holdex
