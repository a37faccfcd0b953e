#pragma once

#include <chrono>
#include <functional>

/// Runs Python's signal handlers while compiled code computes in the main thread, the only one in which
/// Python runs them. Throws what a handler raises.
///
/// Takes Python's lock, therefore at most 20 times per second. To be called without that lock.
class SignalPoll {
 public:
  void operator()();

 private:
  using Clock = std::chrono::steady_clock;

  Clock::time_point next = Clock::now();
};

/// A poll for the current thread; empty outside the main thread.
std::function<void()> signalPoll();
