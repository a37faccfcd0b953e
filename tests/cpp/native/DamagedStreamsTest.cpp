#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <native/pulsewaves/ChunkTable.h>
#include <native/pulsewaves/PulseChunk.h>
#include <native/pulsewaves/PulseWaveforms.h>

namespace PulseWaves {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes randomBytes(std::size_t count, unsigned int seed) {
  std::mt19937 chance(seed);
  Bytes bytes(count);
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(chance());
  }
  return bytes;
}

// A heap block of exactly the size, so that the address sanitizer detects a read after its end.
TEST(DamagedStreams, RandomChunksNeverGiveMorePulsesThanAskedFor) {
  std::array<Item, 4> const items{Item{ItemType::pulse, 48}, Item{ItemType::sourceNumber16, 2},
                                  Item{ItemType::extraBytes, 5}, Item{ItemType::sourceNumber32, 4}};
  for (unsigned int seed = 0; seed < 200; ++seed) {
    Bytes const bytes = randomBytes(seed * 7, seed);
    PulseChunk const found = decodePulseChunk(bytes, items, 100);
    EXPECT_LE(found.pulses, 100U);
    EXPECT_EQ(found.records.size(), found.pulses * 59);
    EXPECT_LE(found.consumed, bytes.size());
    EXPECT_TRUE(found.pulses == 100 || found.truncated || found.damaged);
  }
}

TEST(DamagedStreams, RandomSamplesAreCompleteOrRejected) {
  std::vector<Sampling> const samplings{{8, 32, 8, 0, 0, 8}, {0, 16, 16, 2, 0, 16}, {16, 0, 32, 0, 0, 8}};
  for (unsigned int seed = 0; seed < 200; ++seed) {
    Bytes const bytes = randomBytes(seed * 11, seed);
    std::vector<std::int64_t> const offsets{0, 5, -3, 4000, static_cast<std::int64_t>(bytes.size())};
    std::vector<std::int64_t> const ends{4000, 2, 7, 5000, 1'000'000};
    DecodedWaveforms const found = decodeWaveforms(bytes, offsets, ends, 2, samplings);
    ASSERT_EQ(found.states.size(), offsets.size());
    for (Segment const& segment : found.segments) {
      EXPECT_EQ(found.states[segment.pulse], PulseState::complete);
      EXPECT_LE(segment.start + segment.count, found.samples.size());
    }
  }
}

TEST(DamagedStreams, TableEndsWithItsBytes) {
  Bytes const bytes = randomBytes(100, 1);
  ChunkTable const table = decodeChunkTable(bytes, 1'000'000'000, true);
  EXPECT_FALSE(table.intact);
  EXPECT_LT(table.bytes.size(), 1000U);
}

TEST(DamagedStreams, ArgumentsThatNoFileHasAreRefused) {
  Bytes const bytes(100);
  std::vector<std::int64_t> const one{0};
  std::vector<Sampling> const odd{{8, 32, 8, 0, 0, 12}};
  EXPECT_THROW(decodeWaveforms(bytes, one, one, 0, odd), std::invalid_argument);
  EXPECT_THROW(decodeWaveforms(bytes, one, {}, 0, {}), std::invalid_argument);
  EXPECT_THROW(decodePulseChunk(bytes, {}, 1), std::invalid_argument);
}

}  // namespace
}  // namespace PulseWaves
