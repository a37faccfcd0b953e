#pragma once

#include <atomic>
#include <cstdint>

namespace Holdex {

/// One thread's share of a counter of the whole process: the numbers are drawn in runs, so that threads that
/// count do not wait for each other. As long as one thread counts, they go up by one.
class ThreadedCounter {
 public:
  std::uint64_t next(std::atomic<std::uint64_t>& drawn) noexcept {
    if (value == end) {
      // Only the values count, no memory is published through them: relaxed order is enough.
      value = drawn.fetch_add(runLength, std::memory_order_relaxed);
      end = value + runLength;
    }
    return value++;
  }

  /// The number behind the last one of this thread, 0 before the first.
  [[nodiscard]] std::uint64_t upcoming() const noexcept { return value; }

 private:
  static constexpr std::uint64_t runLength = 4096;

  std::uint64_t value = 0;
  std::uint64_t end = 0;
};

}  // namespace Holdex
