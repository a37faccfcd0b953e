#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace FullWaveform::Testing {

/// Runs `work(number)` on `count` threads that start at the same time, and waits for all of them.
template <class Work>
void onThreads(int count, Work const& work) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      while (!go.load(std::memory_order_acquire)) {
        std::this_thread::yield();
      }
      work(number);
    });
  }
  go.store(true, std::memory_order_release);
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace FullWaveform::Testing
