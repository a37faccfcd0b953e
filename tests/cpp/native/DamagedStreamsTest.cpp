#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
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

/// Bytes directly before memory that must not be read.
class GuardedBytes {
 public:
  explicit GuardedBytes(Bytes const& content)
      : page(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        mapped(content.size() / page * page + 2 * page) {
    memory = static_cast<std::uint8_t*>(
        mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (memory == MAP_FAILED || mprotect(memory + mapped - page, page, PROT_NONE) != 0) {
      throw std::runtime_error("no guarded memory");
    }
    bytes = {memory + mapped - page - content.size(), content.size()};
    std::copy(content.begin(), content.end(), bytes.begin());
  }
  GuardedBytes(GuardedBytes const&) = delete;
  GuardedBytes& operator=(GuardedBytes const&) = delete;
  ~GuardedBytes() { munmap(memory, mapped); }

  std::span<std::uint8_t> bytes;

 private:
  std::size_t page;
  std::size_t mapped;
  std::uint8_t* memory;
};

TEST(DamagedStreams, PulsesTogetherAreDecodedAsOneByOne) {
  // The first is complete in nearly every stream but the last, which is too short, the second in few.
  std::array<std::vector<Sampling>, 2> const layouts{
      std::vector<Sampling>{{0, 0, 0, 1, 80, 8}, {0, 8, 0, 1, 25, 8}},
      std::vector<Sampling>{{8, 0, 8, 0, 0, 8}, {0, 0, 8, 2, 0, 16}}};
  std::size_t complete = 0;
  for (unsigned int seed = 0; seed < 100; ++seed) {
    GuardedBytes const guarded(randomBytes(3850, seed));
    std::vector<std::int64_t> offsets;
    std::vector<std::int64_t> ends;
    for (std::int64_t pulse = 0; pulse < 48; ++pulse) {
      offsets.push_back(80 * pulse);
      ends.push_back(80 * pulse + (pulse % 25 == 3 ? 30 : 400));
    }
    std::vector<Sampling> const& layout = layouts[seed % 2];
    DecodedWaveforms const together = decodeWaveforms(guarded.bytes, offsets, ends, 0, layout);
    std::vector<std::uint16_t> samples;
    std::size_t segments = 0;
    for (std::size_t i = 0; i < offsets.size(); ++i) {
      DecodedWaveforms const one = decodeWaveforms(guarded.bytes, std::span(offsets).subspan(i, 1),
                                                   std::span(ends).subspan(i, 1), 0, layout);
      EXPECT_EQ(together.states[i], one.states[0]);
      EXPECT_EQ(together.starts[i], samples.size());
      for (Segment const& segment : one.segments) {
        Segment const& same = together.segments.at(segments++);
        EXPECT_EQ(same.pulse, i);
        EXPECT_EQ(same.start, samples.size() + segment.start);
        EXPECT_EQ(same.count, segment.count);
        EXPECT_EQ(same.duration, segment.duration);
      }
      samples.insert(samples.end(), one.samples.begin(), one.samples.end());
      complete += static_cast<std::size_t>(one.states[0] == PulseState::complete);
    }
    EXPECT_EQ(together.segments.size(), segments);
    EXPECT_EQ(together.samples, samples);
  }
  EXPECT_GT(complete, 1000U);
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
