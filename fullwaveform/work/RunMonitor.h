#pragma once

#include <atomic>
#include <cstdint>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// What the drivers of a run share with the thread that watches it. Every member may be called at any time
/// from any thread.
class RunMonitor {
 public:
  /// Ends the run: every driver that has this monitor throws `Cancelled` from its current call, and from all
  /// later ones.
  void cancel() noexcept { cancelled.store(true, std::memory_order_relaxed); }
  [[nodiscard]] bool isCancelled() const noexcept { return cancelled.load(std::memory_order_relaxed); }

  /// Number of waveforms that all drivers have finished; drivers add to it every few milliseconds.
  [[nodiscard]] std::uint64_t waveformsDone() const noexcept { return done.load(std::memory_order_relaxed); }
  void addWaveforms(std::uint64_t count) noexcept { done.fetch_add(count, std::memory_order_relaxed); }

 private:
  std::atomic<bool> cancelled = false;
  std::atomic<std::uint64_t> done = 0;
};

}  // namespace FullWaveform
