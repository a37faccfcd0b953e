#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>

#include <fullwaveform/Export.h>
#include <fullwaveform/work/RunMonitor.h>

namespace FullWaveform {

/// Thrown when the work on a waveform would exceed its limit.
class FULLWAVEFORM_EXPORT TooComplex : public std::runtime_error {
 public:
  TooComplex();
};

/// Thrown after `RunMonitor::cancel`.
class FULLWAVEFORM_EXPORT Cancelled : public std::runtime_error {
 public:
  Cancelled();
};

/// Bounds the work on each waveform, and lets a run be interrupted and watched.
///
/// Work is counted in operations of about 0.2 ns, never in time, so that whether a waveform exceeds the limit
/// does not depend on the machine. Methods count a step before they begin it. Belongs to one thread, except
/// for the monitor.
class WorkMeter {
 public:
  static constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

  std::uint64_t limit = unlimited;      ///< for each waveform, operations
  std::shared_ptr<RunMonitor> monitor;  ///< may be empty
  std::function<void()> poll;  ///< called every few milliseconds; what it throws ends the call; may be empty

  /// Starts to count the work on a waveform.
  void startWaveform() noexcept { spent = 0; }

  /// Counts a step of the work on the current waveform.
  /// @throws TooComplex, Cancelled
  void spend(std::uint64_t operations) {
    spent += operations;
    if (spent > limit) {
      throw TooComplex();
    }
    pass(operations);
  }

  /// Counts a step of work that the limit does not apply to.
  /// @throws Cancelled
  void pass(std::uint64_t operations) {
    if (monitor && monitor->isCancelled()) {
      throw Cancelled();
    }
    sinceAttention += operations;
    if (sinceAttention >= attentionInterval) {
      attend();
    }
  }

  /// Counts a waveform as finished.
  void finishWaveform() noexcept { ++finished; }

  /// Reports the finished waveforms to the monitor and polls; also called while work is counted.
  FULLWAVEFORM_EXPORT void attend();

 private:
  static constexpr std::uint64_t attentionInterval = 10'000'000;

  std::uint64_t spent = 0;           ///< on the current waveform
  std::uint64_t sinceAttention = 0;  ///< work since the last call of `attend`
  std::uint64_t finished = 0;        ///< waveforms since then
};

/// Counts a step of work if there is a meter.
inline void spend(WorkMeter* meter, std::uint64_t operations) {
  if (meter != nullptr) {
    meter->spend(operations);
  }
}

}  // namespace FullWaveform
