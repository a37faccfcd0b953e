#include <atomic>
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/StrongPtr.h>
#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/Threads.h"

namespace Holdex {
namespace {

using FullWaveform::Testing::ConsoleCapture;
using FullWaveform::Testing::onThreads;

constexpr int threads = 4;
constexpr int rounds = 2000;

TEST(HostThreads, IdentifiersAreUniqueAcrossThreads) {
  std::vector<std::vector<std::uint64_t>> taken(threads);
  onThreads(threads, [&](int number) {
    for (int i = 0; i < rounds; ++i) {
      taken[static_cast<std::size_t>(number)].push_back(PointerID::next());
    }
  });
  std::set<std::uint64_t> all;
  for (auto const& identifiers : taken) {
    all.insert(identifiers.begin(), identifiers.end());
  }
  EXPECT_EQ(all.size(), static_cast<std::size_t>(threads * rounds));
}

TEST(HostThreads, CopiesOfOneStrongPointerAreCounted) {
  auto const shared = makeStrong<Chunk<double>>(std::vector<double>{3.0});
  std::atomic<int> wrong{0};
  onThreads(threads, [&](int) {
    for (int i = 0; i < rounds; ++i) {
      StrongPtr<Chunk<double>> const copy = shared;
      StrongPtr<Chunk<double>> const second = copy;
      wrong += (*second)[0] == 3.0 ? 0 : 1;
    }
  });
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(shared->record().strongCount(), 1U);
}

TEST(HostThreads, LastPointerReleasesTheChunkOnAnyThread) {
  std::size_t const before = ChunkBase::memoryTotal();
  for (int round = 0; round < rounds / 10; ++round) {
    auto const chunk = makeStrong<Chunk<double>>(std::size_t{8});
    std::vector<StrongPtr<Chunk<double>>> copies(threads, chunk);
    onThreads(threads, [&](int number) {
      auto const index = static_cast<std::size_t>(number);
      (*copies[index])[index] = 1.0;
      copies[index].reset();
    });
  }
  EXPECT_EQ(ChunkBase::memoryTotal(), before);
}

TEST(HostThreads, WeakPointersLockOrFailWhileTheObjectIsDestroyed) {
  ConsoleCapture const capture;
  for (int round = 0; round < 200; ++round) {
    auto strong = makeStrong<Chunk<double>>(std::vector<double>{7.0});
    WeakPtr<Chunk<double>> const weak = strong;
    std::atomic<int> wrong{0};
    onThreads(threads, [&](int number) {
      if (number == 0) {
        strong.reset();
        return;
      }
      WeakPtr<Chunk<double>> const copy = weak;
      for (int i = 0; i < 5; ++i) {
        StrongPtr<Chunk<double>> const locked = copy.lock();
        wrong += !locked || (*locked)[0] == 7.0 ? 0 : 1;
      }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_FALSE(weak.isValid());
  }
}

TEST(HostThreads, ChunkTotalReturnsToItsInitialValue) {
  std::size_t const before = ChunkBase::memoryTotal();
  onThreads(threads, [&](int number) {
    for (int i = 0; i < rounds; ++i) {
      Chunk<float> const chunk(static_cast<std::size_t>(number + i % 7));
    }
  });
  EXPECT_EQ(ChunkBase::memoryTotal(), before);
}

TEST(HostThreads, MessagesArriveCompleteAndOnce) {
  ConsoleCapture const capture;
  onThreads(threads, [&](int number) {
    for (int i = 0; i < 100; ++i) {
      Console console;
      console << "thread " << std::to_string(number) << " message " << std::to_string(i);
    }
  });
  auto const messages = capture.messages();
  std::set<std::string> const distinct(messages.begin(), messages.end());
  EXPECT_EQ(messages.size(), 400U);
  EXPECT_EQ(distinct.size(), 400U);
  EXPECT_TRUE(distinct.contains("thread 3 message 99"));
}

TEST(HostThreads, RangesAreSearchedOnSeveralThreadsAtOnce) {
  std::vector<double> values(5000);
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = static_cast<double>(i * 7919 % 5000);
  }
  std::atomic<int> wrong{0};
  onThreads(threads, [&](int) {
    Kestra::DataRange<double> const range{std::span<double const>(values)};
    wrong += range.minimum() == 0.0 && range.maximum() == 4999.0 ? 0 : 1;
  });
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Holdex
